# Makes the page plx-attributes(7) from docs/attributes.md, so that the two cannot differ.
# Input is what that file uses of Markdown: headings, paragraphs, tables, **strong** and `code`.

# Markdown's inline marks become roff's, and what roff would take for a request or an escape is made harmless.
function inline(text) {
    gsub(/\\/, "\\e", text)
    while (match(text, /\*\*[^*]+\*\*/))
        text = substr(text, 1, RSTART - 1) "\\fB" substr(text, RSTART + 2, RLENGTH - 4) "\\fP" substr(text, RSTART + RLENGTH)
    while (match(text, /`[^`]+`/))
        text = substr(text, 1, RSTART - 1) "\\fB" substr(text, RSTART + 1, RLENGTH - 2) "\\fP" substr(text, RSTART + RLENGTH)
    if (text ~ /^[.']/)
        text = "\\&" text
    return text
}

function close_list() {
    if (in_table)
        print ".El"
    in_table = 0
}

function attribute_row() {
    print inline(cell[8]) "."
    print ".br"
    print inline(cell[4]) (cell[6] == "yes" ? ", may be masked" : "") (cell[7] == "-" ? "" : ", words: " cell[7]) \
        "; " cell[5] (cell[5] == 1 ? " byte" : " bytes") ", id " cell[3]
}

function row(   i) {
    for (i = 2; i <= columns; i++) {
        sub(/^ +/, "", cell[i])
        sub(/ +$/, "", cell[i])
    }
    print ".It " inline(cell[2])
    if (columns == 9) {
        attribute_row()
        return
    }
    for (i = 3; i < columns; i++)
        print inline(cell[i]) (i + 1 < columns ? ";" : "")
}

BEGIN {
    print ".Dd November 21, 2026\n.Dt PLX-ATTRIBUTES 7 libplx\n.ds doc-volume libplx manual\n.Os libplx 1.0.0\n.Sh NAME\n.Nm plx-attributes"
    print ".Nd the attributes of libplx entries, and the form of their values\n.Sh DESCRIPTION"
    fresh = 1 # nothing stands under the heading yet
}
/^# / { next }
/^## / {
    close_list()
    sub(/ \(.*/, "")
    print ".Sh " toupper(substr($0, 4))
    fresh = 1
    next
}
/^\|[-|]+\|?$/ { next }
/^\|/ {
    columns = split($0, cell, "|")
    if (in_table)
        row()
    else
        print ".Bl -tag -width Ds"
    in_table = 1
    fresh = 0
    next
}
/^$/ {
    close_list()
    paragraph = !fresh
    next
}
{
    if (paragraph)
        print ".Pp"
    paragraph = fresh = 0
    print inline($0)
}
END {
    close_list()
    print ".Sh SEE ALSO\n.Xr fp_udp_ace 3 ,\n.Xr plx-policy 5"
}
