# Reads a list of names. Writes a C source with them as texts, in an array called -v variable=, which a null pointer ends.
BEGIN { printf "#include \"module.h\"\n\nconst char *const %s[] = {\n", variable }
{ printf "    \"%s\",\n", $1 }
END { print "    0};" }
