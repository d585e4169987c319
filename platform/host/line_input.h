// Lines from standard input: edited with completion on a terminal, plain from anything else.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace qel::host {

// A line that is typed ends the editing; the next ShowPrompt() begins a new one, below what was printed meanwhile. The
// end of the input (Ctrl-D on a terminal) is told by AtEnd().
// At most one at a time exists (the editing library is process-wide). One thread.
class LineInput {
 public:
  // What may stand behind these words, for completion.
  using Completer = std::function<std::vector<std::string>(const std::vector<std::string>&)>;

  explicit LineInput(Completer completer);
  ~LineInput();  // gives the terminal back as it was
  LineInput(const LineInput&) = delete;
  LineInput& operator=(const LineInput&) = delete;

  // Standard input is readable: takes what there is.
  void OnReadable();
  // Takes the next whole line out; false if there is none.
  bool Next(std::string& line);
  bool AtEnd() const { return at_end_; }
  // At the end because somebody at a terminal typed Ctrl-D.
  bool ClosedByUser() const { return at_end_ && terminal_; }

  // Before anything else is printed: takes prompt and half-typed line off the screen.
  void HidePrompt();
  // When the next line may be typed: shows the prompt, and the half-typed line again.
  void ShowPrompt();

  // For the editing library's callbacks.
  void TakeEdited(char* line);
  const Completer& completer() const { return completer_; }

 private:
  Completer completer_;
  bool terminal_;
  bool editing_ = false;  // a line was begun: the editing library has the terminal
  bool shown_ = false;    // its prompt is on the screen
  bool at_end_ = false;
  std::string pending_;
};

}  // namespace qel::host
