# Reads imports.list. With -v form=weak writes a C header that makes each reference to one of the names weak, so that a host
# that lacks one can load the kit all the same, and is told which. Else a C source with the names and their addresses.
{ names[++count] = $1 }
END {
    if (form == "weak") {
        print "#include <json-c/json.h>\n"
        split("File Log Memory Netio Netns Platform Process Route Rule SafeStr Store", headers, " ")
        for (i = 1; i in headers; ++i) print "#include \"vq" headers[i] ".h\""
        print ""
        for (i = 1; i <= count; ++i) printf "extern __typeof__(%s) %s __attribute__((weak));\n", names[i], names[i]
        exit
    }
    print "#include \"imports.h\"\n"
    print "const Import kImports[] = {"
    for (i = 1; i <= count; ++i) printf "    {\"%s\", (void (*)(void))%s},\n", names[i], names[i]
    printf "};\nconst size_t kImportCount = %d;\n", count
}
