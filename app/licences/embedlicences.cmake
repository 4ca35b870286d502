# cmake -DOUTPUT=<header> -DINPUTS=<a.txt;b.txt;...> -P embedlicences.cmake
# Writes a header with one null-terminated char array per licence text, named after the file
# (lgpl-3.txt becomes LicenceTexts::lgpl_3), so the texts are part of the binary and nothing is read at run time.
# The texts are kept byte for byte except for the line feeds that end the file: the printed notice puts its own
# separator after every text.

set(content "// Generated from the files in app/licences by embedlicences.cmake; edit those files instead.\n")
string(APPEND content "#ifndef ORVIX_LICENCETEXTS_H\n#define ORVIX_LICENCETEXTS_H\n\nnamespace LicenceTexts {\n")

foreach(input IN LISTS INPUTS)
    get_filename_component(fileName "${input}" NAME)
    string(REGEX REPLACE "\\.txt$" "" stem "${fileName}")
    string(MAKE_C_IDENTIFIER "${stem}" identifier)

    file(READ "${input}" hex HEX)
    # Each byte is two hex digits, so a match anchored at the end stays on byte boundaries.
    string(REGEX REPLACE "(0a)+$" "" hex "${hex}")
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
    # One generated line per line of text.
    string(REPLACE "'\\x0a'," "'\\x0a',\n    " bytes "${bytes}")

    string(APPEND content "\n// ${fileName}\ninline constexpr char ${identifier}[] = {\n    ${bytes}'\\0'\n};\n")
endforeach()

string(APPEND content "\n} // namespace LicenceTexts\n\n#endif\n")

file(WRITE "${OUTPUT}" "${content}")
