# embed_templates(OUTPUT FILE...): writes OUTPUT, a source file that defines IniTemplates() (cli/init_command.h) with
# the content of each FILE under its name without folder, up to the line "; == Schema ==": what follows describes the
# module's database and stays with the module. Repeated whenever one of the files changes.
function(embed_templates output)
  set(entries "")
  foreach(path IN LISTS ARGN)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${path})
    get_filename_component(name ${path} NAME)
    file(READ ${path} content)
    string(FIND "${content}" "\n; == Schema ==" schema)
    if(NOT schema EQUAL -1)
      string(SUBSTRING "${content}" 0 ${schema} content)
    endif()
    string(APPEND entries "    {\"${name}\", R\"kel_ini(${content})kel_ini\"},\n")
  endforeach()
  string(CONCAT text
    "#include \"cli/init_command.h\"\n\n"
    "const std::map<std::string_view, std::string_view>& IniTemplates() {\n"
    "    static const std::map<std::string_view, std::string_view> templates = {\n"
    "${entries}"
    "    };\n"
    "    return templates;\n"
    "}\n")
  set(old "")
  if(EXISTS ${output})
    file(READ ${output} old)
  endif()
  if(NOT old STREQUAL text)
    file(WRITE ${output} "${text}")
  endif()
endfunction()
