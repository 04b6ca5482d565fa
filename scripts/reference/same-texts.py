"""Names each text in code type that a page of the manual has and the page made of it has not: the two languages read
quotes, signs of percent and colons in ways of their own.

usage: same-texts.py FOLDER-OF-PAGES MARKDOWN...
"""

import html
import pathlib
import re
import sys


def words(text):
    return " ".join(text.split())


def page_of(markdown, folder):
    """The page made of it, whatever the program's version puts in the place of its name's signs."""
    if markdown == "README.md":
        return folder / "index.html"
    (page,) = folder.glob("md_" + re.sub(r"\W", "*", markdown.removesuffix(".md")) + ".html")
    return page


failed = False
for markdown in sys.argv[2:]:
    source = re.sub("```.*?```", "", pathlib.Path(markdown).read_text(), flags=re.DOTALL)
    page = page_of(markdown, pathlib.Path(sys.argv[1])).read_text()
    page = re.sub("</?(a|b|em|span)( [^>]*)?>|\N{WORD JOINER}", "", page)
    shown = words(html.unescape(re.sub("<[^>]*>", " ", page)))
    for text in re.findall("`([^`]+)`", source):
        if words(text) not in shown:
            print(f"{markdown}: is not shown as it is written: {words(text)}", file=sys.stderr)
            failed = True
sys.exit(failed)
