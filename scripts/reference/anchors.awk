# Gives the headings of a Markdown page the anchors that a reader of the source meets, "## How it works" #how-it-works, and
# lets links lead to them; and the page a list of them. Labels are common to all pages here, so each begins with the page's name.

# quotable LINE: with double signs around code that has an apostrophe, which would end it.
function quotable(line,    parts, count, i, text) {
    count = split(line, parts, "`")
    text = parts[1]
    for (i = 2; i <= count; i++) {
        sign = parts[i - i % 2] ~ /'/ && i - i % 2 < count ? "``" : "`"
        text = text sign parts[i]
    }
    return text
}

BEGIN {
    page = ARGV[1]
    sub(/.*\//, "", page)
    sub(/\.md$/, "", page)
}
/^```/ { inCode = !inCode }
inCode || /^    / { print; next }
/^# / && page != "README" { print $0 "\n\n[TOC]\n"; next }
/^###* / {
    gsub(/`/, "")
    anchor = tolower($0)
    sub(/^#+ +/, "", anchor)
    gsub(/[^a-z0-9 _-]/, "", anchor)
    gsub(/ /, "-", anchor)
    print $0 " {#" page "-" anchor "}"
    next
}
{
    gsub(/::ffff/, ":⁠:ffff") # with a joiner: else it would be taken for a name of the program
    gsub(/%[A-Za-z]/, "%&") # else the sign would be an order not to make a link, and gone
    gsub(/\]\(#/, "](#" page "-")
    rest = $0
    line = ""
    while (match(rest, /\]\([a-z\/-]*\.md#/)) { # of another page
        target = substr(rest, RSTART + 2, RLENGTH - 6)
        sub(/.*\//, "", target)
        line = line substr(rest, 1, RSTART - 1) "](#" target "-"
        rest = substr(rest, RSTART + RLENGTH)
    }
    print quotable(line rest)
}
