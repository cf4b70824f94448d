# Writes OUTPUT, a C++ source that holds the bytes of FILES and makes the table of the assets.
# cmake -D OUTPUT=... -D FILES="a;b" -P embed.cmake

set(types html text/html css text/css js text/javascript svg image/svg+xml png image/png
          flac audio/flac webmanifest application/manifest+json)
set(arrays "")
set(rows "")
set(number 0)
foreach(file IN LISTS FILES)
  file(READ ${file} bytes HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  string(APPEND arrays "constexpr char FILE_${number}[] = {${bytes}};\n")

  # The page itself is "/", what lies beside it is below /page/.
  string(REGEX REPLACE "^.*/page/files/" "" path "${file}")
  if(IS_ABSOLUTE "${path}")
    get_filename_component(path "${path}" NAME)
  endif()
  get_filename_component(ending "${file}" LAST_EXT)
  string(SUBSTRING "${ending}" 1 -1 ending)
  list(FIND types ${ending} at)
  math(EXPR at "${at} + 1")
  list(GET types ${at} type)
  if(type MATCHES "^text/")
    string(APPEND type "; charset=utf-8")
  endif()
  set(path "/page/${path}")
  if(path STREQUAL "/page/index.html")
    set(path "/")
  endif()
  string(APPEND rows
    "    Asset{\"${path}\", \"${type}\", {FILE_${number}, sizeof FILE_${number}}},\n")
  math(EXPR number "${number} + 1")
endforeach()

file(WRITE ${OUTPUT} "#include \"web/page/page_data.h\"

#include <array>

namespace vxweb {

namespace {

${arrays}
constexpr std::array<Asset, ${number}> TABLE = {{
${rows}}};

}  // namespace

const Asset* pageAssetsBegin() {
    return TABLE.data();
}

const Asset* pageAssetsEnd() {
    return TABLE.data() + TABLE.size();
}

}  // namespace vxweb
")
