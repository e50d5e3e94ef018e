# Writes OUT with a digest of HEADERS (a list), in the order of their names.
list(SORT HEADERS)
set(all "")
foreach(header IN LISTS HEADERS)
  file(MD5 ${header} digest)
  get_filename_component(name ${header} NAME)
  string(APPEND all "${name} ${digest}\n")
endforeach()
string(MD5 signature "${all}")
string(SUBSTRING ${signature} 0 20 signature)
file(CONFIGURE OUTPUT ${OUT} CONTENT [[// Made by the build from the headers beside this one.
#pragma once

/// Digest of the platform's interface as compiled in here.
#define PLATFORM_INTERFACE_SIGNATURE "@signature@"
]] @ONLY)
