// See shell_editor.hpp.
#include "shell_editor.hpp"

#include <cstdio>
#include <stdexcept>

namespace plx::tool {

namespace {

constexpr int history_length = 1000;

// The process's one terminal, never ended: the terminal is itself again after every line, and libedit's end loses track
// of the names given to EL_ADDFN, which a leak check would report.
EditLine *terminal()
{
    static EditLine *const line = el_init("plx", stdin, stdout, stderr);
    return line;
}

} // namespace

ShellEditor::ShellEditor(std::string prompt, std::string history_file, Completer completer)
    : prompt_(std::move(prompt)), history_file_(std::move(history_file)), completer_(std::move(completer)),
      line_(terminal())
{
    if (!history_ || !line_)
        throw std::runtime_error("the line editor does not start");
    HistEvent event;
    history(history_.get(), &event, H_SETSIZE, history_length);
    history(history_.get(), &event, H_SETUNIQUE, 1);
    if (!history_file_.empty())
        history(history_.get(), &event, H_LOAD, history_file_.c_str());

    el_set(line_, EL_CLIENTDATA, this);
    el_set(line_, EL_PROMPT, ShellEditor::prompt);
    el_set(line_, EL_EDITOR, "emacs");
    el_set(line_, EL_SIGNAL, 1);
    el_set(line_, EL_HIST, history, history_.get());
    el_set(line_, EL_ADDFN, "plx-complete", "Complete commands and arguments", on_tab);
    el_set(line_, EL_BIND, "^I", "plx-complete", nullptr);
    el_source(line_, nullptr); // the user's own ~/.editrc comes last
}

ShellEditor::~ShellEditor()
{
    HistEvent event;
    if (!history_file_.empty())
        history(history_.get(), &event, H_SAVE, history_file_.c_str());
}

std::optional<std::string> ShellEditor::read()
{
    int length = 0;
    const char *text = el_gets(line_, &length);
    if (!text || length <= 0)
        return std::nullopt;
    std::string line(text, static_cast<size_t>(length));
    while (line.ends_with('\n') || line.ends_with('\r'))
        line.pop_back();
    HistEvent event;
    if (line.find_first_not_of(" \t") != line.npos)
        history(history_.get(), &event, H_ENTER, line.c_str());
    return line;
}

ShellEditor &ShellEditor::self(EditLine *line)
{
    void *data = nullptr;
    el_get(line, EL_CLIENTDATA, &data);
    return *static_cast<ShellEditor *>(data);
}

char *ShellEditor::prompt(EditLine *line)
{
    return self(line).prompt_.data();
}

unsigned char ShellEditor::on_tab(EditLine *line, int)
{
    const LineInfo *info = el_line(line);
    const Completion completion =
        self(line).completer_({info->buffer, static_cast<size_t>(info->cursor - info->buffer)});
    if (!completion.insert.empty())
        return el_insertstr(line, completion.insert.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
    if (completion.candidates.size() < 2)
        return CC_REFRESH_BEEP;
    self(line).list(completion.candidates);
    return CC_REDISPLAY;
}

void ShellEditor::list(const std::vector<std::string> &candidates) const
{
    std::putchar('\n');
    for (const std::string &candidate : candidates)
        std::printf("%s\n", candidate.c_str());
    std::fflush(stdout);
}

} // namespace plx::tool
