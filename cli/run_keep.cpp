// The command lines of the subcommands that keep a catalog.
#include <cstdint>
#include <limits>

#include "cli/declare.h"
#include "cli/journal.h"
#include "cli/logs.h"
#include "cli/patrol.h"
#include "cli/period.h"
#include "cli/retention.h"

namespace cli {
namespace {

// Adds the option `name`, which sets `seconds` to a period.
CLI::Option* add_period(CLI::App* command, const std::string& name, std::int64_t* seconds,
                        const std::string& help) {
  const auto take = [name, seconds](const std::string& text) {
    const auto period = parse_period(text);
    if (!period) throw CLI::ValidationError(name, "no period such as 90s, 15m, 6h, 30d or 2w");
    *seconds = *period;
  };
  return command->add_option_function<std::string>(name, take, help)->type_name("PERIOD");
}

// A word with subcommands of its own.
CLI::App& add_group(CLI::App& app, const std::string& name, const std::string& description) {
  CLI::App* group = app.add_subcommand(name, description);
  group->require_subcommand(1);
  return *group;
}

CLI::Range days_range() { return {0, std::numeric_limits<int>::max()}; }

void declare_retention_set(CLI::App& group, Request& request) {
  const auto options = std::make_shared<RetentionSetOptions>();
  CLI::App* command = add_subcommand(
      group, request, "set",
      "Locks a file's entry for a period from the compliance clock's now, and shows it. A lock in "
      "force is never shortened: exit status 5, and the lock in force is named.",
      retention_set, options);
  add_root(command, options->root);
  command->add_option("PATH", options->path, "The file's path below ROOT")->required();
  add_period(command, "--for", &options->seconds, "How long: 90s, 15m, 6h, 30d, 2w")->required();
  command->add_flag("--immutable", options->immutable,
                    "The entry becomes immutable as well, which nothing takes back");
  command->add_flag("--cloud", options->cloud,
                    "The image lives on cloud storage: the period counts from its creation, "
                    "the entry's change time. Nothing takes this back, and the server is told no "
                    "remaining time of such an entry");
}

void declare_retention_show(CLI::App& group, Request& request) {
  const auto options = std::make_shared<RetentionShowOptions>();
  CLI::App* command = add_subcommand(group, request, "show",
                                     "Shows an entry's lock, what remains of it, and its flags.",
                                     retention_show, options);
  add_root(command, options->root);
  command->add_option("PATH", options->path, kPathHelp)->required();
}

}  // namespace

void declare_retention(CLI::App& app, Request& request) {
  CLI::App& group = add_group(app, "retention", "Locks entries, and shows their locks.");
  declare_retention_set(group, request);
  declare_retention_show(group, request);
}

void declare_journal(CLI::App& app, Request& request) {
  const auto options = std::make_shared<JournalApplyOptions>();
  CLI::App* command = add_subcommand(
      add_group(app, "journal", "Replays journals of SQL."), request, "apply",
      "Replays a journal, one SQL statement on a line and each ending with ';', into a database: "
      "as one batch, and, when that meets something that is no SQL, line by line. The line pass "
      "leaves out DELETE and DROP, and begins again at the first line: the statements must bear "
      "being applied twice. There is no transaction around it. Exit status 3 when lines were "
      "passed over that are no SQL; 1 when a statement failed, or a transaction was left open.",
      journal_apply, options);
  command->add_option("DATABASE", options->database, "An existing database file")->required();
  command->add_option("FILE", options->file, "The journal")->required();
  command->add_flag("--line-by-line", options->line_by_line,
                    "Do not try it as one batch first; what follows the last ';' is left out");
  command->add_flag("--dry-run", options->dry_run,
                    "Apply it to a temporary copy and tell what came of it; TMPDIR says where");
  command->add_flag("--force-locked", options->force_locked,
                    "Apply it even where entries are immutable, locked or damaged");
}

void declare_logs(CLI::App& app, Request& request) {
  const auto options = std::make_shared<LogsCleanOptions>();
  CLI::App* command = add_subcommand(
      add_group(app, "logs", "Removes old logs."), request, "clean",
      "Deletes files that were last modified more than so many days ago, but none whose name "
      "begins "
      "with '.', and follows no link. Refuses directories that hold anything of a catalog. Exit "
      "status 3 when this user may not remove the files of some directory.",
      logs_clean, options);
  command->add_option("DIR", options->directory, "The directory of the logs")->required();
  command
      ->add_option("--days", options->days,
                   "Delete files older than so many days; 0 deletes none for its age")
      ->required()
      ->check(days_range());
  CLI::Option* empty = command->add_option("--empty-days", options->empty_days,
                                           "Delete empty files older than so many days");
  empty->check(days_range());
  const auto is_text = [](const std::string& text) {
    return text.empty() ? "an empty text is in every path" : "";
  };
  command->add_option("--key", options->key, "Only files whose path, DIR included, contains this")
      ->check(CLI::Validator(is_text, ""))
      ->excludes(empty);
  command->add_flag("--recursive", options->recursive,
                    "Also in the directories below; those left empty are removed");
}

void declare_patrol(CLI::App& app, Request& request) {
  const auto options = std::make_shared<PatrolOptions>();
  CLI::App* command = add_subcommand(
      app, request, "patrol",
      "Becomes a daemon, one for each catalog, that verifies ROOT again and again at a bounded "
      "speed and logs what is wrong. Exit status 0 as soon as that has its lock and its log. "
      "SIGHUP starts a round, SIGTERM ends it. docs/patrol.md describes its files and metrics.",
      patrol, options);
  add_root(command, options->root);
  add_period(command, "--every", &options->every,
             "The time from the start of a round to that of the next, for example 6h")
      ->required();
  command->add_option("--log-dir", options->log_dir, "An existing directory for its logs")
      ->required();
  add_period(command, "--keep-logs", &options->keep_logs,
             "Remove its own logs that are older, in days, rounded up; 30d when not given");
  command->add_option("--metrics", options->metrics,
                      "Write a text file for Prometheus after every round");
  command->add_flag("--foreground", options->foreground, "Stay attached to the terminal");
}

}  // namespace cli
