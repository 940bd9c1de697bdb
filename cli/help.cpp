#include "cli/help.h"

#include <cstddef>
#include <sstream>

namespace cli {
namespace {

constexpr std::size_t kTerminal = 80;

// The words of `text` in lines of at most `width` bytes; a longer word has a line of its own.
std::string wrapped(const std::string& text, std::size_t width) {
  std::string lines;
  std::size_t length = 0;  // of the last line
  std::istringstream words(text);
  for (std::string word; words >> word; length += word.size()) {
    const bool fits = length + 1 + word.size() <= width;
    if (!lines.empty()) lines += fits ? ' ' : '\n';
    length = fits && !lines.empty() ? length + 1 : 0;
    lines += word;
  }
  return lines;
}

std::string first_sentence(const std::string& text) {
  const std::size_t end = text.find(". ");
  return end == std::string::npos ? text : text.substr(0, end + 1);
}

}  // namespace

std::string Help::make_description(const CLI::App* app) const {
  return wrapped(Formatter::make_description(app), kTerminal) + "\n\n";
}

std::string Help::make_subcommand(const CLI::App* subcommand) const {
  const std::string text = first_sentence(subcommand->get_description());
  std::ostringstream out;
  CLI::detail::format_help(out, subcommand->get_name(),
                           wrapped(text, kTerminal - get_column_width()), get_column_width());
  return out.str();
}

std::string Help::make_option_desc(const CLI::Option* option) const {
  return wrapped(option->get_description(), kTerminal - get_column_width());
}

}  // namespace cli
