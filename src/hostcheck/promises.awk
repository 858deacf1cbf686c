# Reads promises.list and writes C. -v form= says what: header (the constants of the promises), source (their texts),
# declarations and checks (the functions that check them), names (the constants for the contract tests). Two forms are for
# scripts/promises: list (for the documents) and table (constant, id and where it is judged). -v lines=FILE names a file with "header declaration line" in
# each line, for the source.
BEGIN {
    while (lines != "" && (getline entry < lines) > 0) {
        split(entry, part, " ")
        line[part[1] " " part[2]] = part[3]
    }
}
# netns.prefix-length: kNetnsPrefixLength
function constant(id,    words, count, i, text) {
    count = split(id, words, /[.-]/)
    text = "k"
    for (i = 1; i <= count; ++i) text = text toupper(substr(words[i], 1, 1)) substr(words[i], 2)
    return text
}
function check(id) { return "Check" substr(constant(id), 2) }
/^#/ || !NF { next }
{
    key = $1
    sub(/^[a-z]+: /, "")
    if (key == "id:") id[++count] = $0
    else if (key == "level:") level[count] = $0
    else if (key == "header:") header[count] = $0
    else if (key == "promise:") promise[count] = $0
    else if (key == "otherwise:") otherwise[count] = $0
    else if (key == "judged:") judged[count] = $0
    else { print FILENAME ":" FNR ": unknown key " key > "/dev/stderr"; exit 1 }
}
END {
    if (form == "names") {
        print "// The promises of the host interface, for PROMISE(). Generated from promises.list.\n#pragma once\n"
        print "namespace kavel::contract::promises {\n"
        for (i = 1; i <= count; ++i) printf "inline constexpr const char *%s = \"%s: %s\";\n", constant(id[i]), id[i], promise[i]
        print "\n} // namespace kavel::contract::promises"
    } else if (form == "header") {
        print "/* Generated from promises.list. */\n#ifndef HOSTCHECK_PROMISES_H\n#define HOSTCHECK_PROMISES_H\n\ntypedef enum {"
        for (i = 1; i <= count; ++i) printf "    %s,\n", constant(id[i])
        print "    kPromiseCount\n} PromiseId;\n\n#endif"
    } else if (form == "table") {
        for (i = 1; i <= count; ++i) print constant(id[i]), id[i], (i in judged) ? judged[i] : "alone"
    } else if (form == "list") {
        for (i = 1; i <= count; ++i) {
            split(id[i], name, ".")
            if (name[1] != area) printf "\n### %s\n\n", area = name[1]
            split(header[i], part, " ")
            printf "- `%s` (%s, `%s` line %d): %s. *Otherwise: %s.*%s\n", id[i], level[i], part[1], line[header[i]],
                promise[i], otherwise[i], judged[i] == "apply" ? " Needs `--apply`." : ""
        }
    } else if (form == "checks") {
        print "/* Generated from promises.list. */\n#include \"checks.h\"\n\nconst CheckFunction kChecks[kPromiseCount] = {"
        for (i = 1; i <= count; ++i)
            if (!(i in judged)) printf "    [%s] = %s,\n", constant(id[i]), check(id[i])
        print "};"
    } else if (form == "declarations") {
        print "/* Generated from promises.list: the checks of the promises. */"
        print "#ifndef HOSTCHECK_CHECKS_H\n#define HOSTCHECK_CHECKS_H\n\n#include \"check.h\"\n"
        for (i = 1; i <= count; ++i)
            if (!(i in judged)) printf "void %s(Check *check);\n", check(id[i])
        print "\n#endif"
    } else {
        print "/* Generated from promises.list. */\n#include \"promise.h\"\n\nconst Promise kPromises[kPromiseCount] = {"
        for (i = 1; i <= count; ++i) {
            split(header[i], part, " ")
            printf "    [%s] = {\"%s\", %d, \"%s\", %d, \"%s\", \"%s\", \"%s\"},\n", constant(id[i]), id[i],
                level[i] == "must", part[1], line[header[i]], part[2], promise[i], otherwise[i]
        }
        print "};"
    }
}
