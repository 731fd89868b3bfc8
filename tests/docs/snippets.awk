# Joins the blocks of one language (`-v language=sh`; C when none is named) of a Markdown text, in order; C becomes one
# source file that names the text's lines. With `-v block=2` it is that block alone.
BEGIN { language = language == "" ? "c" : language }
/^```/ {
    inside = $0 == "```" language && (block == "" || ++seen == block)
    if (inside && language == "c")
        printf "#line %d \"%s\"\n", NR + 1, FILENAME
    next
}
inside
