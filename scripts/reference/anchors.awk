# Gives the headings of a Markdown page the anchors that a reader of the source meets, "## How it works" #how-it-works, and
# lets links lead to them; and the page a list of them. Labels are common to all pages here, so each begins with the page's name.
#
# A percent sign in code stands twice, or it would vanish.
function keepPercentSigns(parts, count, i) {
    count = split($0, parts, "`")
    $0 = parts[1]
    for (i = 2; i <= count; i++) {
        if (i % 2 == 0) { gsub(/%/, "%%", parts[i]) }
        $0 = $0 "`" parts[i]
    }
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
    anchor = tolower($0)
    sub(/^#+ +/, "", anchor)
    gsub(/[^a-z0-9 _-]/, "", anchor)
    gsub(/ /, "-", anchor)
    print $0 " {#" page "-" anchor "}"
    next
}
{
    gsub(/::ffff/, ":⁠:ffff") # with a joiner: else it would be taken for a name of the program
    keepPercentSigns()
    gsub(/\]\(#/, "](#" page "-")
    rest = $0
    line = ""
    while (match(rest, /\]\([a-z\/-]*\.md#/)) { # of another page
        target = substr(rest, RSTART + 2, RLENGTH - 6)
        sub(/.*\//, "", target)
        line = line substr(rest, 1, RSTART - 1) "](#" target "-"
        rest = substr(rest, RSTART + RLENGTH)
    }
    print line rest
}
