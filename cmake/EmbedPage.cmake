# Makes one C++ file of the replay page: cmake -DDIRECTORY=... -DOUTPUT=... -P EmbedPage.cmake
# The policy in the page lets its own script and style run and nothing else: it names their hashes.

# The order counts: what a file uses while it is read stands in one before it.
set(scripts text model filter draw lanes pointer details table replay)

# Base 64 of a hash in hexadecimal, as a policy writes it.
function(base64 hex result)
  string(JOIN "" alphabet ABCDEFGHIJKLMNOPQRSTUVWXYZ abcdefghijklmnopqrstuvwxyz 0123456789+/)
  set(text "")
  string(LENGTH "${hex}" length)
  set(padded "${hex}0000")
  foreach(at RANGE 0 ${length} 6)
    if(at LESS length)
      string(SUBSTRING "${padded}" ${at} 6 group)
      foreach(shift 18 12 6 0)
        math(EXPR digit "(0x${group} >> ${shift}) & 63")
        string(SUBSTRING "${alphabet}" ${digit} 1 letter)
        string(APPEND text "${letter}")
      endforeach()
    endif()
  endforeach()
  math(EXPR wanted "(${length} * 4 + 5) / 6")
  string(SUBSTRING "${text}" 0 ${wanted} text)
  math(EXPR missing "(4 - ${wanted} % 4) % 4")
  string(REPEAT "=" ${missing} padding)
  set(${result} "${text}${padding}" PARENT_SCOPE)
endfunction()

function(hashed text result)
  string(SHA256 hex "${text}")
  base64(${hex} encoded)
  set(${result} "'sha256-${encoded}'" PARENT_SCOPE)
endfunction()

function(characters text result)
  file(WRITE "${OUTPUT}.part" "${text}")
  file(READ "${OUTPUT}.part" hex HEX)
  file(REMOVE "${OUTPUT}.part")
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," array "${hex}")
  string(REGEX REPLACE "((......,......,......,......,......,......,......,......,......,......,......,......,......,......,......,......,))"
         "\\1\n" array "${array}")
  set(${result} "${array}" PARENT_SCOPE)
endfunction()

set(script "(() => {\n\"use strict\";\n")
foreach(name IN LISTS scripts)
  file(READ "${DIRECTORY}/${name}.js" text)
  string(REGEX REPLACE "^\"use strict\".\n\n" "" text "${text}")
  string(APPEND script "\n${text}")
endforeach()
string(APPEND script "})();\n")
if(script MATCHES "</script" OR script MATCHES "<!--")
  message(FATAL_ERROR "The page's script would end before its end")
endif()
file(READ "${DIRECTORY}/replay.css" style)
file(READ "${DIRECTORY}/replay.html" page)

hashed("${script}" script_hash)
hashed("${style}" style_hash)
set(policy "default-src 'none'; script-src ${script_hash}; style-src ${style_hash}; base-uri 'none'; form-action 'none'")
string(REPLACE "@POLICY@" "${policy}" page "${page}")
string(REPLACE "@STYLE@" "${style}" page "${page}")
string(REPLACE "@SCRIPT@" "${script}" page "${page}")
string(FIND "${page}" "@STORY@" at)
string(SUBSTRING "${page}" 0 ${at} before)
math(EXPR at "${at} + 7")
string(SUBSTRING "${page}" ${at} -1 after)

characters("${before}" before)
characters("${after}" after)
file(WRITE "${OUTPUT}.new" "#include \"replayPageText.h\"

namespace kelctl {

namespace {
constexpr char kBefore[] = {${before}};
constexpr char kAfter[] = {${after}};
}  // namespace

const std::string_view kPageBeforeStory{kBefore, sizeof kBefore};
const std::string_view kPageAfterStory{kAfter, sizeof kAfter};

}  // namespace kelctl
")
file(RENAME "${OUTPUT}.new" "${OUTPUT}")
