# The resource script src/resources/tamrix.rc is the single source of every
# resource. The DLL links it as usual; the host build compiles it into a
# standard RES file and embeds that file in an ELF section (".tamrix_rsrc")
# of each module that carries resources, where the platform layer finds it.
if(NOT WIN32)
  find_program(TAMRIX_WINDRES NAMES x86_64-w64-mingw32-windres i686-w64-mingw32-windres windres REQUIRED)
  function(tamrix_compile_res rc_file res_file)
    get_filename_component(rc_dir ${rc_file} DIRECTORY)
    file(GLOB rc_deps CONFIGURE_DEPENDS ${rc_dir}/*)
    add_custom_command(
      OUTPUT ${res_file}
      COMMAND ${TAMRIX_WINDRES} -c 65001 --input-format=rc --output-format=res -I ${rc_dir} -i ${rc_file} -o ${res_file}
      DEPENDS ${rc_deps}
      COMMENT "Compiling resources ${rc_file}")
  endfunction()
  # Creates an object library <target> whose single object embeds res_file.
  function(tamrix_embed_res target res_file)
    set(asm ${CMAKE_CURRENT_BINARY_DIR}/${target}.S)
    file(WRITE ${asm}.in "\t.section .tamrix_rsrc,\"a\"\n\t.balign 4\n\t.incbin \"@RES@\"\n\t.section .note.GNU-stack,\"\",@progbits\n")
    set(RES ${res_file})
    configure_file(${asm}.in ${asm} @ONLY)
    set_source_files_properties(${asm} PROPERTIES OBJECT_DEPENDS ${res_file} LANGUAGE C
                                COMPILE_OPTIONS "-x;assembler-with-cpp")
    add_library(${target} OBJECT ${asm})
    add_custom_target(${target}_res DEPENDS ${res_file})
    add_dependencies(${target} ${target}_res)
  endfunction()
endif()
