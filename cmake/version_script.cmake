# Writes the linker version script of the plug-in from the export allowlists
# (localdisk/exports/*.exports, one demangled symbol a line). Hidden visibility
# already keeps our own internals out of the dynamic table; the script also
# keeps out the standard-library template instances that libstdc++ declares
# with default visibility, so the plug-in's interface is exactly the lists.
#   cmake -DLISTS_DIR=... -DOUTPUT=... -P version_script.cmake
file(GLOB lists "${LISTS_DIR}/*.exports")
list(SORT lists)
set(c_names "")
set(cxx_names "")
foreach(list_file ${lists})
  file(STRINGS "${list_file}" lines)
  foreach(line IN LISTS lines)
    string(STRIP "${line}" line)
    if(line STREQUAL "" OR line MATCHES "^#")
      continue()
    endif()
    if(line MATCHES "^[A-Za-z_][A-Za-z0-9_]*$")
      string(APPEND c_names "      ${line};\n")
    else()
      string(APPEND cxx_names "      \"${line}\";\n")
    endif()
  endforeach()
endforeach()
set(content "{\n  global:\n    extern \"C\" {\n${c_names}    };\n    extern \"C++\" {\n${cxx_names}    };\n  local: *;\n};\n")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" old)
  if(old STREQUAL content)
    return()
  endif()
endif()
file(WRITE "${OUTPUT}" "${content}")
