// Lines from standard input: edited with completion on a terminal, plain from anything else.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace qel::host {

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

  // Around output of others, so that the line being edited does not mix with it.
  void HidePrompt();
  void ShowPrompt();

  // For the editing library's callbacks.
  void TakeEdited(char* line);
  const Completer& completer() const { return completer_; }

 private:
  Completer completer_;
  bool terminal_;
  bool at_end_ = false;
  std::string pending_;
};

}  // namespace qel::host
