# Reference manual from the public headers' comments (Debian: doxygen): man
# pages in section 3 (one per header, and one per function, macro and type
# that opens its header's page) and HTML with a page per header. Built with
# the default target and installed when Doxygen is there.
find_package(Doxygen QUIET)
option(OSTREL_BUILD_DOCS "Build the reference manual with Doxygen" ${DOXYGEN_FOUND})
if(OSTREL_BUILD_DOCS)
  if(NOT DOXYGEN_FOUND)
    message(FATAL_ERROR "OSTREL_BUILD_DOCS needs Doxygen")
  endif()
  set(OSTREL_DOCS_DIR ${PROJECT_BINARY_DIR}/docs)
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${OSTREL_DOCS_DIR}/Doxyfile @ONLY)
  file(GLOB OSTREL_DOC_INPUTS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/*.h
       ${PROJECT_SOURCE_DIR}/include/*.hpp ${PROJECT_SOURCE_DIR}/support/include/*.h)
  add_custom_command(OUTPUT ${OSTREL_DOCS_DIR}/stamp
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${OSTREL_DOCS_DIR}/man ${OSTREL_DOCS_DIR}/html ${OSTREL_DOCS_DIR}/xml
    COMMAND Doxygen::doxygen ${OSTREL_DOCS_DIR}/Doxyfile
    COMMAND sh ${PROJECT_SOURCE_DIR}/docs/prune-man-links.sh ${OSTREL_DOCS_DIR}/man/man3
    COMMAND ${CMAKE_COMMAND} -E touch ${OSTREL_DOCS_DIR}/stamp
    DEPENDS ${OSTREL_DOC_INPUTS} ${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_SOURCE_DIR}/docs/prune-man-links.sh
    COMMENT "Reference manual (Doxygen)" VERBATIM)
  add_custom_target(docs ALL DEPENDS ${OSTREL_DOCS_DIR}/stamp)
  install(DIRECTORY ${OSTREL_DOCS_DIR}/man/man3 DESTINATION ${CMAKE_INSTALL_MANDIR})
  install(DIRECTORY ${OSTREL_DOCS_DIR}/html/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/html)
endif()
