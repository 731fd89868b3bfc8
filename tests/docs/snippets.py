"""snippets.py GUIDE OUT: joins the C blocks of a Markdown text, in order, into one source file that names the text's lines."""
import sys

source, out = sys.argv[1:]
inside = False
with open(source, encoding="utf-8") as text, open(out, "w", encoding="utf-8") as program:
    for number, line in enumerate(text, 1):
        if line.startswith("```"):
            inside = line.strip() == "```c"
            if inside:
                program.write(f'#line {number + 1} "{source}"\n')
        elif inside:
            program.write(line)
