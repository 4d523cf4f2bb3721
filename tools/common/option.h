// Options with a checked text, for both programs' command lines.
#ifndef GX_COMMON_OPTION_H
#define GX_COMMON_OPTION_H

#include <CLI/CLI.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "common/duration.h"

namespace gxtool {

// The fault in an option's text. The functions below prefix it with the option and the text.
struct BadText : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Wraps `read`: turns its BadText into a command-line error that names the option.
template <class Read>
auto NamingTheOption(const std::string& names, Read read) {
  return [option = names.substr(0, names.find(',')), read](const std::string& text) mutable {
    try {
      return read(text);
    } catch (const BadText& error) {
      throw CLI::ValidationError(option + " \"" + text + "\": " + error.what());
    }
  };
}

// Adds an option that may be given once; `read` receives its text. `names` are in CLI11's form: "-W,--stdio".
// `type` is the placeholder in the help.
template <class Read>
CLI::Option* AddText(CLI::App& app, const std::string& names, const char* type, const std::string& help,
                     Read read) {
  return app.add_option_function<std::string>(names, NamingTheOption(names, read), help)->option_text(type);
}

// Adds an option that may be repeated; `read` receives each text.
template <class Read>
CLI::Option* AddTexts(CLI::App& app, const std::string& names, const char* type, const std::string& help,
                      Read read) {
  const auto read_all = [read_one =
                             NamingTheOption(names, read)](const std::vector<std::string>& texts) mutable {
    for (const std::string& text : texts) read_one(text);
  };
  return app.add_option_function<std::vector<std::string>>(names, read_all, help)
      ->option_text(type)
      ->allow_extra_args(false);
}

// Returns the value that `parse` reads, or throws BadText with its reason.
template <class Value>
Value Parsed(const std::string& text, std::optional<Value> (*parse)(std::string_view, std::string*)) {
  std::string why;
  auto value = parse(text, &why);
  if (!value) throw BadText(why);
  return *std::move(value);
}

// `Value` must be assignable from milliseconds.
template <class Value>
CLI::Option* AddDuration(CLI::App& app, const std::string& name, const std::string& help, Value* value) {
  return AddText(app, name, "TIME", help, [value](const std::string& text) {
    const auto duration = ParseDuration(text);
    if (!duration) throw BadText("not a duration (500ms, 15s, 2m)");
    *value = *duration;
  });
}

}  // namespace gxtool

#endif  // GX_COMMON_OPTION_H
