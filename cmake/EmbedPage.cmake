# cmake -DPAGE=lab/report/page -DOUT=file.cpp -P EmbedPage.cmake: the report's page as C++ arrays. Style and script are
# each one array, the vendored parts first.
function(udt_array NAME)
  set(BYTES "")
  foreach(FILE ${ARGN})
    file(READ ${PAGE}/${FILE} HEX HEX)
    string(APPEND BYTES "${HEX}0a")
  endforeach()
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," BYTES "${BYTES}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" BYTES "${BYTES}")
  file(APPEND ${OUT} "extern const unsigned char g_a${NAME}[];\nextern const size_t g_n${NAME};\n"
    "const unsigned char g_a${NAME}[] = {\n${BYTES}\n};\nconst size_t g_n${NAME} = sizeof(g_a${NAME});\n\n")
endfunction()

file(WRITE ${OUT} "// Made from lab/report/page.\n#include <cstddef>\n\nnamespace lab\n{\n\n")
udt_array(ReportHtml report.html)
udt_array(ReportCss vendor/uPlot.min.css report.css)
udt_array(ReportJs vendor/uPlot.iife.min.js report.js)
file(APPEND ${OUT} "} // namespace lab\n")
