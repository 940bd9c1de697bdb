// How the help texts are laid out.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace cli {

// Breaks long texts into lines that fit a terminal, and names each subcommand in the overview with
// the first sentence of its description: the rest is for its own help.
class Help : public CLI::Formatter {
 public:
  std::string make_description(const CLI::App* app) const override;
  std::string make_subcommand(const CLI::App* subcommand) const override;
  std::string make_option_desc(const CLI::Option* option) const override;
};

}  // namespace cli
