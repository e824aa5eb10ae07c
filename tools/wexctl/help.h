// How help reads: what each verb does beyond its one line, and the shape of it all. The man page is
// made from the same.
#pragma once

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <string>
#include <string_view>

namespace wexctl {

/// What to know about a verb, such as "supervised ranges", and an example; every verb has some, and
/// anything else is a mistake.
std::string verb_details(std::string_view verb);

/// Arguments without their types, which their descriptions tell, and every verb with its details.
class HelpFormatter : public CLI::Formatter {
public:
  std::string make_option_opts(const CLI::Option* option) const override;
  std::string make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const override;
  std::string make_expanded(const CLI::App* verb) const override;

private:
  std::string usage_of(const CLI::App* verb) const;
};

} // namespace wexctl
