// Writes gx-ssh's messages to a file as well.
#ifndef GX_SSH_LOG_FILE_H
#define GX_SSH_LOG_FILE_H

#include <string>

namespace gxtool {

enum class LogFormat { kText, kJson };

// Adds the file to spdlog's default logger, which then appends each message as a line or a JSON object with the
// time. A new file gets mode 0600. Writing never blocks. Throws Failure when the file cannot be opened.
void AddLogFile(const std::string& path, LogFormat format);

}  // namespace gxtool

#endif  // GX_SSH_LOG_FILE_H
