#include "cli/run.h"

#include <unistd.h>

#include <array>
#include <iostream>
#include <memory>
#include <string>

#include "cli/catalog.h"
#include "cli/cause.h"
#include "cli/check.h"
#include "cli/command.h"
#include "cli/dcids.h"
#include "cli/declare.h"
#include "cli/find.h"
#include "cli/help.h"
#include "cli/ingest.h"
#include "cli/ls.h"
#include "cli/rm.h"
#include "cli/show.h"
#include "cli/stats.h"
#include "cli/verify.h"
#include "refhost/control.h"

namespace cli {
namespace {

std::string root_fault(std::string& root) {
  if (root.empty()) return "is empty";
  return absolute_root(root).empty() ? "is the root of the file system, which is no catalog" : "";
}

// A number as the name of a data store's directory writes it: "010" is none, least of all 8.
CLI::Option* add_dsid(CLI::App* command, const std::string& help, unsigned int least,
                      const std::function<void(unsigned int)>& take) {
  const auto parse = [least, take](const std::string& text) {
    const auto dsid = parse_dsid(text);
    if (!dsid || *dsid < least) {
      throw CLI::ValidationError("--dsid", text + " is no decimal number of a data store");
    }
    take(*dsid);
  };
  return command->add_option_function<std::string>("--dsid", parse, help)->type_name("N");
}

void declare_ingest(CLI::App& app, Request& request) {
  const auto options = std::make_shared<IngestOptions>();
  CLI::App* command = add_subcommand(
      app, request, "ingest",
      "Makes the catalog directory ROOT/N/client/policy describe the tree SOURCE, and prints what "
      "was done. Symbolic links are not followed; links, sockets, pipes and devices are left out, "
      "and so is the catalog itself. Running it again stores the differences. Exit status 3 when "
      "some entries were not done: each is named.",
      ingest, options);
  command->add_option("SOURCE", options->source, "The directory to ingest")->required();
  add_root(command, options->root, "--root", "The catalog's root directory; made when missing");
  add_dsid(command, "The data store, a number from 1 on", 1, [options](unsigned int dsid) {
    options->dsid = dsid;
  })->required();
  command->add_option("--client", options->client, "A name: the directory below the data store")
      ->required();
  command->add_option("--policy", options->policy, "A name: the directory below that")->required();
  command->add_flag("--delete", options->delete_missing,
                    "Remove entries that SOURCE no longer has. Protected ones stay");
  command->add_flag_callback(
      "--no-content", [options] { options->with_content = false; },
      "Do not read the files: size and modification time tell which have changed, "
      "and those are stored without the identifier of their content");
  command
      ->add_option("--threads", options->threads,
                   "How many directories to work on at once; as many as the machine has cores when "
                   "not given")
      ->check(CLI::Range(1U, kMostThreads));
}

void declare_ls(CLI::App& app, Request& request) {
  const auto options = std::make_shared<LsOptions>();
  CLI::App* command = add_subcommand(
      app, request, "ls",
      "Lists a directory of the catalog: mode, owner, size, time of last change (UTC), marks, "
      "name. Marks: i belongs to an immutable image, r has a retention lock. Damaged entries are "
      "named as such; the exit status is 4 then.",
      ls, options);
  add_root(command, options->root);
  command->add_option("PATH", options->path,
                      "A directory or a file below ROOT, for example 5/client/policy/etc. Without "
                      "it the data stores are listed");
  command->add_flag("-R,--recursive", options->recursive, "All directories below, too");
}

void declare_show(CLI::App& app, Request& request) {
  const auto options = std::make_shared<ShowOptions>();
  CLI::App* command = add_subcommand(
      app, request, "show", "Prints one entry with every field of its record.", show, options);
  add_root(command, options->root);
  command->add_option("PATH", options->path, kPathHelp)->required();
}

void declare_rm(CLI::App& app, Request& request) {
  const auto options = std::make_shared<RmOptions>();
  CLI::App* command = add_subcommand(
      app, request, "rm",
      "Removes one file entry, or a directory with nothing below it, and says so. Refuses, with "
      "exit status 1 and the reason, protected and damaged entries, and directories that hold "
      "anything.",
      rm, options);
  add_root(command, options->root);
  command->add_option("PATH", options->path, kPathHelp)->required();
  command->add_option("--damaged-row", options->damaged_row,
                      "Remove the row with this rowid, as verify names it, from the database of "
                      "the directory PATH: for a damaged row that no file can replace. It may have "
                      "been a protected one. A sound row is refused");
}

void declare_verify(CLI::App& app, Request& request) {
  const auto options = std::make_shared<VerifyOptions>();
  CLI::App* command = add_subcommand(
      app, request, "verify",
      "Checks every database, row and directory record below ROOT. Prints one line for each thing "
      "that is wrong and a summary; repairs nothing. Exit status 4 when something is wrong, 3 when "
      "something could not be examined.",
      verify, options);
  add_root(command, options->root);
}

void declare_find(CLI::App& app, Request& request) {
  const auto options = std::make_shared<FindOptions>();
  CLI::App* command = add_subcommand(
      app, request, "find",
      "Finds files by their names, and prints their paths below ROOT, directory by directory. "
      "Damaged entries whose names match, and damaged databases, are named on standard error; the "
      "exit status is 4 then, and 3 when a directory could not be read.",
      find, options);
  add_root(command, options->root);
  command
      ->add_option("PATTERN", options->pattern,
                   "The name, without directories. '*' stands for any bytes; where names are "
                   "case-sensitive also '?' for one character and [abc] for one of these")
      ->required();
  command->add_option("--under", options->under, "Only in this directory below ROOT and deeper");
  command->add_option("--poid", options->poid, "Only files with the content of this POID");
  command->add_option("--size", options->size, "Only files of more ('>N') or less ('<N') bytes");
  command->add_option("--newer", options->newer,
                      "Only files modified after this time: RFC 3339, or seconds since 1970");
  command->add_flag("-0", options->nul, "End every path with a NUL, and print it as it is");
}

void declare_stats(CLI::App& app, Request& request) {
  const auto options = std::make_shared<StatsOptions>();
  CLI::App* command = add_subcommand(
      app, request, "stats",
      "Counts files, directories and bytes; different contents, those of one file only (unique) "
      "and of several (shared), and their bytes, each content once; lists of containers and "
      "different containers. Then names the directories with most bytes directly in them. Takes "
      "about 200 bytes of temporary space for each file; TMPDIR says where.",
      stats, options);
  add_root(command, options->root);
  add_dsid(command, "Only this data store", 0,
           [options](unsigned int dsid) { options->dsid = dsid; });
}

void declare_dcids(CLI::App& app, Request& request) {
  const auto options = std::make_shared<DcidsOptions>();
  CLI::App* command = add_subcommand(
      app, request, "dcids",
      "Prints the data containers of one content, and the bytes of it in each.", dcids, options);
  add_root(command, options->root);
  command
      ->add_option("CONTENT", options->content,
                   "A file's path below ROOT, or a POID; that one is looked for everywhere")
      ->required();
}

void declare_check(CLI::App& app, Request& request) {
  const auto options = std::make_shared<CheckOptions>();
  CLI::App* command = add_subcommand(
      app, request, "check",
      "Compares the parts of a catalog with each other: names contents without a list of "
      "containers, lists without a content, and counters that differ from what is stored. Exit "
      "status 4 when there are such, 3 when something could not be examined.",
      check, options);
  add_root(command, options->root);
}

constexpr std::array kSubcommands = {
    declare_ingest,  declare_ls,   declare_show,   declare_find,  declare_stats,
    declare_dcids,   declare_rm,   declare_verify, declare_check, declare_retention,
    declare_journal, declare_logs, declare_patrol};

constexpr const char* kFooter =
    "Exit status: 0 done, 1 failed, 2 wrong arguments, 3 some entries were not done,\n"
    "4 the catalog is inconsistent, 5 a retention lock would be shortened. Names are\n"
    "printed with control bytes, backslashes and bytes that are no UTF-8 as \\xNN. A\n"
    "path that starts with '-' goes after '--'.";

void declare_common(CLI::App& app, Request& request) {
  app.formatter(std::make_shared<Help>());
  app.description("Ingests directory trees into a backup catalog, shows and checks it.");
  app.footer(kFooter);
  app.set_version_flag("--version", "pocatalog " POCATALOG_VERSION);
  app.add_flag("--json", request.json, "Print one JSON object per line");
  app.add_flag("-v,--verbose", request.verbose, "Print the library's log lines, too");
  app.add_option("--log", request.log_file, "Append the library's log lines to this file");
  app.require_subcommand(0, 1);  // an unknown one is named, that way
  app.fallthrough();             // the common options may stand behind the subcommand, too
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

void tell_usage(std::ostream& err, const std::string& text) {
  err << "pocatalog: " << printable(text) << "\nRun with --help for more information.\n";
}

int parse_and_run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  CLI::App app;
  Request request;
  declare_common(app, request);
  for (const auto declare : kSubcommands) declare(app, request);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool asked_for_help = error.get_exit_code() == 0;
    if (asked_for_help) return app.exit(error, out, err);
    tell_usage(err, error.what());  // which quotes the arguments
    return kUsage;
  }
  if (request.action) return run_action(request, out, err);
  tell_usage(err, "A subcommand is required.");
  return kUsage;
}

}  // namespace

void add_root(CLI::App* command, std::string& root, const std::string& name,
              const std::string& help) {
  command->add_option(name, root, help)->required()->check(CLI::Validator(root_fault, ""));
}

int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  watch_sqlite();
  try {
    return parse_and_run(argc, argv, out, err);
  } catch (const std::exception& error) {
    err << "pocatalog: " << printable(error.what()) << '\n';
    return kFailed;
  }
}

}  // namespace cli
