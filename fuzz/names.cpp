// Files of any names, through the command into a catalog and back out of it.
#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <vector>

#include "cli/command.h"
#include "cli/ingest.h"
#include "cli/ls.h"
#include "cli/show.h"
#include "cli/utf8.h"
#include "cli/verify.h"
#include "fuzz/property.h"
#include "po/file_po.h"
#include "podb/sqlite_podb.h"

namespace {

using Names = std::set<std::string>;

constexpr const char* kImage = "5/c/p";

std::string source() { return scratch() + "/source"; }
std::string root() { return scratch() + "/catalog"; }

struct Outcome {
  int status;
  std::string out;
};

// The subcommands themselves: reading a command line takes longer than all that they do.
template <class Options>
Outcome run(int (*subcommand)(const cli::Console&, const Options&), const Options& options,
            bool json = true) {
  std::ostringstream out;
  const int status = subcommand({out, out, json}, options);
  return {status, out.str()};
}

Outcome ingest() {
  cli::IngestOptions options;
  options.source = source();
  options.root = root();
  options.dsid = 5;
  options.client = "c";
  options.policy = "p";
  options.threads = 1;
  return run(cli::ingest, options);
}

// Names are separated by a slash or a NUL, which none can have. An empty file each, by turns a
// directory; returns those that could be made.
Names make_source(Input input, Names* directories) {
  std::filesystem::remove_all(source());
  std::filesystem::create_directories(source());
  Names files;
  for (int i = 0; i < 8 && !input.at_end(); ++i) {
    const std::string part = input.text('/');
    const std::string name = part.substr(0, part.find('\0'));
    const std::string path = source() + "/" + name;
    if (name.empty() || name == "." || name == "..") continue;
    if (i % 4 == 3) {
      if (mkdir(path.c_str(), 0700) == 0) directories->insert(name);
      continue;
    }
    const int file = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600);
    if (file < 0) continue;
    close(file);
    files.insert(name);
  }
  return files;
}

std::string unhex(const std::string& digits) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::vector<nlohmann::json> parsed(const std::string& lines) {
  std::vector<nlohmann::json> objects;
  std::istringstream in(lines);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line.front() != '{') continue;
    objects.push_back(nlohmann::json::parse(line, nullptr, false));
    require(objects.back().is_object(), "each line is an object");
  }
  return objects;
}

Names listed(const std::string& lines, const std::string& type) {
  Names names;
  for (const nlohmann::json& object : parsed(lines)) {
    if (object["type"] != type) continue;
    const auto hex = object.find("name_hex");
    names.insert(hex != object.end() ? unhex(hex->get<std::string>())
                                     : object["name"].get<std::string>());
  }
  return names;
}

// A terminal gets one line for each entry, and nothing that it would obey.
void check_printed(const std::string& out, const Names& names) {
  std::size_t lines = 0;
  for (const char c : out) {
    lines += c == '\n';
    require(c == '\n' || static_cast<unsigned char>(c) >= ' ', "no control byte is printed");
  }
  require(cli::is_utf8(out), "what is printed is text");
  require(lines == names.size(), "each entry has one line");
  Names shown;
  for (const std::string& name : names) shown.insert(cli::printable(name));
  require(shown.size() == names.size(), "no two names look alike");
}

void check_library(const Names& files) {
  SQLitePODB db(root(), root() + "/" + kImage);
  std::vector<std::string> names;
  require(files.empty() || db.find_by_cursor("", &names, 0) == CR_STATUS_OK, "names are listed");
  require(Names(names.begin(), names.end()) == files, "the database has the names of the files");
  for (const std::string& name : files) {
    FilePO entry(5);
    require(db.get(name, &entry) == CR_STATUS_OK, "each can be read");
    require(POGetBasename(entry.record()) == name, "under its name");
  }
}

void check_single(const std::string& name) {
  const Outcome shown =
      run<cli::ShowOptions>(cli::show, {root(), std::string(kImage) + "/" + name});
  require(shown.status == cli::kDone, "a single entry is shown");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Names directories;
  const Names files = make_source(Input(data, size), &directories);
  std::filesystem::remove_all(root());
  const Outcome first = ingest();
  const nlohmann::json counts = parsed(first.out).back();
  const std::size_t refused = counts["not_done"];
  require(first.status == (refused == 0 ? cli::kDone : cli::kIncomplete), "the status tells");
  require(counts["added"] == files.size(), "every file is added");
  check_library(files);

  const Outcome list = run<cli::LsOptions>(cli::ls, {root(), kImage});
  require(list.status == cli::kDone, "the image is listed");
  require(listed(list.out, "file") == files, "with the names of the files");
  const Names below = listed(list.out, "directory");
  require(below.size() + refused == directories.size(), "and of the directories");
  Names all = files;
  all.insert(below.begin(), below.end());
  check_printed(run<cli::LsOptions>(cli::ls, {root(), kImage}, false).out, all);
  if (!files.empty()) check_single(*files.begin());

  require(run<cli::VerifyOptions>(cli::verify, {root()}).status == cli::kDone,
          "the catalog is sound");
  const nlohmann::json again = parsed(ingest().out).back();
  require(again["unchanged"] == files.size() && again["added"] == 0, "nothing is added twice");
  return 0;
}
