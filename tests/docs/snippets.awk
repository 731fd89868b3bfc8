# Joins the C blocks of a Markdown text, in order, into one source file that names the text's lines.
/^```/ {
    inside = $0 == "```c"
    if (inside)
        printf "#line %d \"%s\"\n", NR + 1, FILENAME
    next
}
inside
