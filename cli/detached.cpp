#include "cli/detached.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>

#include "cli/catalog.h"
#include "refhost/fd_internal.h"

namespace cli {
namespace {

// The daemon's end of the line to the process that was called. A message is the exit status, one
// byte, then what belongs on standard error and, after a NUL, on standard output.
class Line {
 public:
  explicit Line(refhost::Fd end) : end_(std::move(end)) {}

  // Hangs up; a second message goes nowhere. Nor does one that nobody waits for any more.
  void tell(int status, const std::string& err, const std::string& out) {
    const refhost::Fd end(end_.release());
    const std::string message = static_cast<char>(status) + err + '\0' + out;
    if (end) send(end.get(), message.data(), message.size(), MSG_NOSIGNAL);
  }

 private:
  refhost::Fd end_;
};

std::string read_to_end(int end) {
  std::string message;
  std::array<char, 4096> part{};
  for (;;) {
    const ssize_t length = read(end, part.data(), part.size());
    if (length > 0) message.append(part.data(), static_cast<std::size_t>(length));
    if (length == 0 || (length < 0 && errno != EINTR)) return message;
  }
}

int hear(const Console& console, int end) {
  const std::string message = read_to_end(end);
  const std::size_t separator = message.find('\0', 1);
  if (separator == std::string::npos) {
    console.err << "pocatalog: the daemon ended before it had started\n";
    return kFailed;
  }
  console.err << message.substr(1, separator - 1);
  console.out << message.substr(separator + 1);
  return static_cast<unsigned char>(message.front());
}

int run_told(const Console& console, const Daemon& daemon, Line line) {
  std::ostringstream out;
  std::ostringstream err;
  const Console told{out, err, console.json};
  const int status = daemon(told, [&line] { line.tell(kDone, "", ""); });
  line.tell(status, err.str(), out.str());
  return status;
}

int not_begun(const Console& console, const char* function) {
  report(console, "the daemon", status_of_errno(function), "cannot be started");
  return kFailed;
}

}  // namespace

int start_detached(const Console& console, const Daemon& daemon) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return not_begun(console, "socketpair");
  }
  refhost::Fd ours(ends[0]);
  refhost::Fd theirs(ends[1]);
  // Nothing is to be written twice.
  console.out.flush();
  console.err.flush();
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) return not_begun(console, "fork");
  if (child == 0) {
    ours = refhost::Fd();
    return run_told(console, daemon, Line(std::move(theirs)));
  }
  theirs = refhost::Fd();  // so that the line ends with the daemon
  const int status = hear(console, ours.get());
  waitpid(child, nullptr, 0);
  return status;
}

}  // namespace cli
