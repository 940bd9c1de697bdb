// What the command takes as an argument, and how it prints names and help.
#include "cli/format.h"
#include "tests/cli/read_fixture.h"

namespace {

TEST(Words, NoTwoNamesLookAlikeAndNoControlByteIsLeft) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"gr\u00fc\u00df", "gr\u00fc\u00df"},
      {"\x1b[31m\n\x7f\\x1b", "\\x1b[31m\\x0a\\x7f\\x5cx1b"},
      {"\xc2\x9b", "\\xc2\\x9b"},                    // the control that starts a sequence, as UTF-8
      {"\xe2\x80\xae", "\\xe2\\x80\\xae"},           // turns what follows around
      {"a\u00ad", "a\\xc2\\xad"},                    // not to be seen
      {"\xff\xc0\xaf\xc3", "\\xff\\xc0\\xaf\\xc3"},  // no UTF-8, too long, cut off
  };
  for (const auto& [name, shown] : cases) EXPECT_EQ(cli::printable(name), shown);
}

TEST(Words, WrongArgumentsAreRefusedBeforeAnythingIsDone) {
  for (const std::string line :
       {"", "\x1b[31m", "ls", "show /none /", "ls /none 5/../5", "rm /none 5/c/../p",
        "dcids /none ../x", "find /none * --size <5k", "find /none * --poid abc",
        "find /none * --newer 2023-02-29T00:00:00Z", "find /none * --under ../x",
        "retention set /none f --for 1y", "retention set /none f --for 15250284452472w",
        "patrol /none --every 6 --log-dir /", "logs clean / --days 99999",
        "logs clean '' --days 99999"}) {
    EXPECT_EQ(expect(cli::kUsage, line, "pocatalog: ").err.find('\x1b'), std::string::npos);
  }
  for (const std::string wrong :
       {"0 --client c --policy p", "4294967296 --client c --policy p", "010 --client c --policy p",
        "5 --client '' --policy p", "5 --client c --policy ..", "5 --client a/b --policy p",
        "5 --client c --policy __dirpo__"}) {
    expect(cli::kUsage, "ingest /none --root /none --dsid " + wrong, "pocatalog: ");
  }
}

// Returns how many helps there are: this one and those of the subcommands that it names.
int expect_narrow_help(const std::string& subcommand) {
  int helps = 1;
  bool listed = false;
  std::istringstream lines(expect(cli::kDone, subcommand + " --help").out);
  for (std::string line; std::getline(lines, line); listed = listed || line == "Subcommands:") {
    EXPECT_LE(line.size(), 80U) << subcommand << ": " << line;
    if (!listed || line.find_first_not_of(' ') != 2) continue;
    helps += expect_narrow_help(subcommand + line.substr(1, line.find(' ', 2) - 1));
  }
  return helps;
}

TEST(Words, NoHelpIsWiderThanATerminal) { EXPECT_EQ(expect_narrow_help(""), 18); }

}  // namespace
