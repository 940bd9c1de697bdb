#include "cli/run.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <functional>
#include <iostream>
#include <string>

#include "cli/command.h"
#include "refhost/control.h"

namespace cli {
namespace {

// What the parsed command line asks for.
struct Request {
  bool json = false;
  bool verbose = false;
  std::string log_file;
  std::function<int(const Console&)> action;
};

// Every subcommand declares its arguments in a function of this kind and sets the action.
using Declaration = void (*)(CLI::App& app, Request& request);

constexpr std::array<Declaration, 0> kSubcommands = {};

constexpr const char* kFooter =
    "Exit status: 0 done, 1 failed, 2 wrong arguments, 3 some entries were not done,\n"
    "4 the catalog is inconsistent. Names are printed with control bytes, backslashes and bytes\n"
    "that are no UTF-8 as \\xNN. A path that starts with '-' goes after '--'.";

void declare_common(CLI::App& app, Request& request) {
  app.description("Ingests directory trees into a backup catalog, shows and checks it.");
  app.footer(kFooter);
  app.set_version_flag("--version", "pocatalog " POCATALOG_VERSION);
  app.add_flag("--json", request.json, "Print one JSON object per line");
  app.add_flag("-v,--verbose", request.verbose, "Print the library's log lines, too");
  app.add_option("--log", request.log_file, "Append the library's log lines to this file");
  app.require_subcommand(1);
  app.fallthrough();  // the common options may stand behind the subcommand, too
}

// A failure is told once, by the subcommand: the library's own lines are for those who ask.
bool direct_log(const Request& request, std::ostream& err) {
  if (!request.log_file.empty()) {
    if (refhost::log_to_file(request.log_file.c_str()) == CR_STATUS_OK) return true;
    err << "pocatalog: " << printable(request.log_file) << ": cannot write the log file\n";
    return false;
  }
  if (!request.verbose) {
    refhost::log_to_sink([](const refhost::LogLine&) {});
  }
  return true;
}

int run_action(const Request& request, std::ostream& out, std::ostream& err) {
  if (!direct_log(request, err)) return kFailed;
  const bool terminal = &err == &std::cerr && isatty(STDERR_FILENO) == 1;
  const Console console{out, err, request.json, terminal};
  const int status = request.action(console);
  if (out.flush()) return status;
  err << "pocatalog: the output could not be written\n";
  return kFailed;
}

int parse_and_run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  CLI::App app;
  Request request;
  declare_common(app, request);
  for (const Declaration declare : kSubcommands) declare(app, request);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error, out, err) == 0 ? kDone : kUsage;
  }
  return run_action(request, out, err);
}

}  // namespace

int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  try {
    return parse_and_run(argc, argv, out, err);
  } catch (const std::exception& error) {
    err << "pocatalog: " << printable(error.what()) << '\n';
    return kFailed;
  }
}

}  // namespace cli
