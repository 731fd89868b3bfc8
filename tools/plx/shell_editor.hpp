// The line editor on the terminal, one at a time, with history kept in a file and completion with the tab key.
#pragma once

#include "shell_line.hpp"

#include <functional>
#include <histedit.h>
#include <memory>
#include <optional>

namespace plx::tool {

using Completer = std::function<Completion(std::string_view line)>;

class ShellEditor {
  public:
    // Without `history_file` the history lasts as long as the editor.
    ShellEditor(std::string prompt, std::string history_file, Completer completer);
    ~ShellEditor();
    ShellEditor(const ShellEditor &) = delete;
    ShellEditor &operator=(const ShellEditor &) = delete;

    // One line without its end; nothing at the end of input.
    std::optional<std::string> read();

  private:
    static ShellEditor &self(EditLine *line);
    static char *prompt(EditLine *line);
    static unsigned char on_tab(EditLine *line, int key);
    void list(const std::vector<std::string> &candidates) const;

    std::string prompt_, history_file_;
    Completer completer_;
    std::unique_ptr<History, void (*)(History *)> history_{history_init(), history_end};
    EditLine *line_;
};

} // namespace plx::tool
