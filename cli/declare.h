// How subcommands are declared to the parser of the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>

#include "cli/command.h"

namespace cli {

// What the parsed command line asks for.
struct Request {
  bool json = false;
  bool verbose = false;
  std::string log_file;
  std::function<int(const Console&)> action;
};

// Adds a subcommand that runs `command` with the options that its arguments fill.
template <typename Options>
CLI::App* add_subcommand(CLI::App& app, Request& request, const std::string& name,
                         const std::string& description,
                         int (*command)(const Console&, const Options&),
                         const std::shared_ptr<Options>& options) {
  CLI::App* subcommand = app.add_subcommand(name, description);
  subcommand->callback([&request, command, options] {
    request.action = [command, options](const Console& console) {
      return command(console, *options);
    };
  });
  return subcommand;
}

inline constexpr const char* kRootHelp = "The catalog's root directory";

// Requires the catalog's root. Refuses an empty text, which an unset variable leaves and which
// would mean the working directory, and the root of the file system.
void add_root(CLI::App* command, std::string& root, const std::string& name = "ROOT",
              const std::string& help = kRootHelp);

inline constexpr const char* kPathHelp =
    "The entry's path below ROOT, for example 5/client/policy/etc/hosts. Of a file and a directory "
    "of one name it means the file; with a '/' at its end, the directory";

// The subcommands that keep a catalog: locks, journals, logs and the patrol.
void declare_retention(CLI::App& app, Request& request);
void declare_journal(CLI::App& app, Request& request);
void declare_logs(CLI::App& app, Request& request);
void declare_patrol(CLI::App& app, Request& request);

}  // namespace cli
