// Reads lines from standard input: on a terminal with editing and completion, else without.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace qel::host {

// A complete line ends the editing; the next ShowPrompt() begins a new line below the output that was printed
// meanwhile. AtEnd() returns true at the end of the input (Ctrl-D on a terminal). Only one object may exist at a time,
// because the editing library has one state per process. One thread only.
class LineInput {
 public:
  // Returns the possible next words after these words, for completion.
  using Completer = std::function<std::vector<std::string>(const std::vector<std::string>&)>;

  explicit LineInput(Completer completer);
  ~LineInput();  // restores the state of the terminal
  LineInput(const LineInput&) = delete;
  LineInput& operator=(const LineInput&) = delete;

  // Must be called when standard input is readable; reads the available bytes.
  void OnReadable();
  // Removes the next complete line from the input and stores it in `line`; returns false if there is none.
  bool Next(std::string& line);
  bool AtEnd() const { return at_end_; }
  // The end of the input was Ctrl-D on a terminal.
  bool ClosedByUser() const { return at_end_ && terminal_; }

  // Must be called before other output: removes the prompt and the incomplete line from the screen.
  void HidePrompt();
  // Must be called when the next line may be typed: shows the prompt and the incomplete line again.
  void ShowPrompt();

  // For the editing library's callbacks.
  void TakeEdited(char* line);
  const Completer& completer() const { return completer_; }

 private:
  Completer completer_;
  bool terminal_;
  bool editing_ = false;  // the editing library controls the terminal
  bool shown_ = false;    // its prompt is on the screen
  bool at_end_ = false;
  std::string pending_;
};

}  // namespace qel::host
