# Writes a C++ header that holds the text of one file as a constant.
#   cmake -DINPUT=file -DOUTPUT=header.h -DNAME=kSymbol -P EmbedText.cmake
file(READ "${INPUT}" content)
file(WRITE "${OUTPUT}" "// Generated from ${INPUT}; not edited by hand.\n#pragma once\ninline constexpr char ${NAME}[] = R\"EMBEDDED(${content})EMBEDDED\";\n")
