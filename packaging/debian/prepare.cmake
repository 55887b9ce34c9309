# CPack runs this on the files before it packs them. It adds the files that only Debian wants, compresses manual pages,
# strips libraries, and sets the files' times, so that two builds of a package are equal.
foreach(package IN LISTS CPACK_COMPONENTS_ALL)
  set(share ${CPACK_TEMPORARY_DIRECTORY}/${package}/usr/share)
  file(COPY ${CMAKE_CURRENT_LIST_DIR}/changelog ${CMAKE_CURRENT_LIST_DIR}/copyright DESTINATION ${share}/doc/${package})
  execute_process(COMMAND gzip -9n ${share}/doc/${package}/changelog COMMAND_ERROR_IS_FATAL ANY)
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/lintian-overrides
               ${CPACK_TEMPORARY_DIRECTORY}/dockhand/usr/share/lintian/overrides/dockhand COPYONLY)
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*)
list(FILTER pages EXCLUDE REGEX "\\.gz$")
foreach(page IN LISTS pages)
  execute_process(COMMAND gzip -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
file(GLOB_RECURSE libraries ${CPACK_TEMPORARY_DIRECTORY}/*/usr/lib/*.a)
foreach(library IN LISTS libraries)
  execute_process(COMMAND strip --strip-debug --enable-deterministic-archives ${library} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -exec touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} +
                  COMMAND_ERROR_IS_FATAL ANY)
endif()
