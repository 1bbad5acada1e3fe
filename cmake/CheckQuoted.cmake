# cmake -DDOCUMENT=README.md -DSOURCE=examples/x.cpp -P CheckQuoted.cmake
# Fails unless DOCUMENT quotes the whole of SOURCE, to the letter, in a cpp block.
file(READ ${DOCUMENT} TEXT)
file(READ ${SOURCE} CODE)
string(FIND "${TEXT}" "```cpp\n${CODE}```\n" AT)
if(AT EQUAL -1)
  message(FATAL_ERROR "${DOCUMENT} does not quote ${SOURCE} as it is; copy the file into its cpp block")
endif()
