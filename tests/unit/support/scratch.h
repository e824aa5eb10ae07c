// Files for a test, gone with it.
#pragma once

#include <filesystem>
#include <string>

/// A fresh folder that goes, with all in it, at the end of its scope.
class ScratchFolder {
public:
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  /// Path of an entry, or of the folder itself.
  [[nodiscard]] std::string path(const std::string& entry = {}) const;
  /// Writes a file; returns its path.
  std::string write(const std::string& entry, const std::string& text) const;

private:
  std::filesystem::path folder_;
};

/// Content of a file; "(no file)" when there is none.
std::string read_file(const std::string& path);

/// Overwrites a file in place, keeping its inode.
void overwrite_file(const std::string& path, const std::string& text);
