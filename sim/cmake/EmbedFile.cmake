# cmake -DINPUT=file -DOUTPUT=file.cpp -DSYMBOL=name -P EmbedFile.cmake
# Writes a translation unit defining tqsim::<SYMBOL> (bytes) and <SYMBOL>Size.
file(READ ${INPUT} hex HEX)
string(LENGTH "${hex}" hexLength)
math(EXPR size "${hexLength} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "((0x..,){16})" "\\1\n" bytes "${bytes}")
file(WRITE ${OUTPUT} "// Generated from ${INPUT}; do not edit.\n#include <cstddef>\n\nnamespace tqsim {\nextern const unsigned char ${SYMBOL}[];\nextern const size_t ${SYMBOL}Size;\nconst unsigned char ${SYMBOL}[] = {\n${bytes}0};\nconst size_t ${SYMBOL}Size = ${size};\n}  // namespace tqsim\n")
