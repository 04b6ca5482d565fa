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


def page_of(markdown):
    name = re.sub("[/-]", "_", markdown.removesuffix(".md"))
    return "index.html" if markdown == "README.md" else f"md_{name}.html"


failed = False
for markdown in sys.argv[2:]:
    source = re.sub("```.*?```", "", pathlib.Path(markdown).read_text(), flags=re.DOTALL)
    page = (pathlib.Path(sys.argv[1]) / page_of(markdown)).read_text()
    page = re.sub("</?(a|b|em|span)( [^>]*)?>|\N{WORD JOINER}", "", page)
    shown = words(html.unescape(re.sub("<[^>]*>", " ", page)))
    for text in re.findall("`([^`]+)`", source):
        if words(text) not in shown:
            print(f"{markdown}: is not shown as it is written: {words(text)}", file=sys.stderr)
            failed = True
sys.exit(failed)
