// What the shells offer for the word that is being typed.
#pragma once

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <string>
#include <vector>

namespace wexctl {

/// The verb that is asked; no help shows it.
inline constexpr const char* complete_verb = "complete";

/// Prints, for a command line without the program's name, what its last word may become, a line
/// each, with a tab and a description where there is one; where it may be any file, nothing but
/// a colon and the word files. Ports come from the daemon, none without one.
void print_completions(const CLI::App& app, const std::vector<std::string>& words);

} // namespace wexctl
