# Reads imports.list. With -v form=weak writes a C header that makes each reference to one of the names weak, so that a host
# that lacks one can load the kit all the same, and is told which. Else a C source with the names and their addresses.
{ names[++count] = $1 }
END {
    if (form == "weak") {
        for (i = 1; i <= count; ++i) print "#pragma weak " names[i]
        exit
    }
    print "#include \"imports.h\"\n"
    for (i = 1; i <= count; ++i) printf "extern void %s(void);\n", names[i]
    print "\nconst Import kImports[] = {"
    for (i = 1; i <= count; ++i) printf "    {\"%s\", %s},\n", names[i], names[i]
    printf "};\nconst size_t kImportCount = %d;\n", count
}
