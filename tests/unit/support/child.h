// Things that only another process may do: lose its privileges, mount, run into a limit.
#pragma once

#include <functional>
#include <string>

/// Runs `body` in a child process and returns the text that it returned, or "(child died)".
/// Expectations do not work inside the child; have it return what it saw.
std::string in_child(const std::function<std::string()>& body);

/// The same as an ordinary user: the caller, or for root the user `nobody`.
std::string as_ordinary_user(const std::function<std::string()>& body);

/// The same with a file system of `kilobytes` mounted over `folder`, visible to the child only.
std::string with_small_disk(const std::string& folder, int kilobytes,
                            const std::function<std::string()>& body);
