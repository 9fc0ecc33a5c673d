# Run by cpack on the installed tree before it is packed: what Debian's policy asks for beyond `cmake --install`.
function(complete_tree tree package)
  if(NOT EXISTS ${tree})
    return()
  endif()
  set(doc ${tree}/usr/share/doc/${package})
  file(COPY ${CPACK_VORN_DEBIAN_DIR}/copyright ${CPACK_VORN_DEBIAN_DIR}/changelog DESTINATION ${doc}
       NO_SOURCE_PERMISSIONS)
  file(RENAME ${doc}/changelog ${doc}/changelog.Debian)
  file(REMOVE ${doc}/LICENSE)  # the copyright file holds it
  if(EXISTS ${doc}/CHANGELOG.md)
    file(RENAME ${doc}/CHANGELOG.md ${doc}/changelog)
  endif()
  if(EXISTS ${CPACK_VORN_DEBIAN_DIR}/${package}.lintian-overrides)
    file(COPY ${CPACK_VORN_DEBIAN_DIR}/${package}.lintian-overrides DESTINATION ${tree}/usr/share/lintian/overrides
         NO_SOURCE_PERMISSIONS)
    file(RENAME ${tree}/usr/share/lintian/overrides/${package}.lintian-overrides
         ${tree}/usr/share/lintian/overrides/${package})
  endif()
  file(GLOB texts ${doc}/changelog* ${tree}/usr/share/man/*/*.[18])
  execute_process(COMMAND gzip -9n ${texts} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

complete_tree(${CPACK_TEMPORARY_DIRECTORY}/vorn vorn)
complete_tree(${CPACK_TEMPORARY_DIRECTORY}/plot vorn-plot)
execute_process(COMMAND ${CPACK_VORN_STRIP} --remove-section=.comment ${CPACK_TEMPORARY_DIRECTORY}/vorn/usr/bin/vorn
                COMMAND_ERROR_IS_FATAL ANY)
