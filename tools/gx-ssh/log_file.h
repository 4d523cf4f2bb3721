// What gx-ssh says, also in a file.
#ifndef GX_SSH_LOG_FILE_H
#define GX_SSH_LOG_FILE_H

#include <string>

namespace gxtool {

enum class LogFormat { kText, kJson };

// From now on what goes to spdlog's default logger is appended to that file as well, one line or one JSON
// object each, with the time. It is created with mode 0600 where there is none. Nobody waits for it. Throws
// Failure when it cannot be opened.
void AddLogFile(const std::string& path, LogFormat format);

}  // namespace gxtool

#endif  // GX_SSH_LOG_FILE_H
