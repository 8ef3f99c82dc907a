// What the processes of several clips say, on one standard error.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace noxel::tool {

// Splits what one process writes. It refreshes a line of progress as Progress does on a terminal.
class ClipLines {
 public:
  // The whole lines in it, without "noxel: ".
  std::vector<std::string> take(std::string_view bytes);
  // The refreshed line as it is now; empty: none.
  std::string state() const;

 private:
  std::string line_;
  bool refreshed_ = false;  // line_ is one that may be written over
};

// Prints lines, and on a terminal one below them that is refreshed. One thread.
class Screen {
 public:
  Screen(bool terminal, std::FILE* out) : terminal_(terminal), out_(out) {}
  ~Screen() { show(""); }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  void print(const std::string& line);
  void show(const std::string& state);  // below; cut to the terminal's width

 private:
  const bool terminal_;
  std::FILE* const out_;
  std::string shown_;
};

}  // namespace noxel::tool
