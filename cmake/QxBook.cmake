# The pages of docs/ as HTML, made by pandoc: the package qxremconxfer-doc. Only packages need it, so other builds leave it out.
option(QX_BUILD_BOOK "Build the pages of docs/ as HTML (pandoc)" OFF)
if(NOT QX_BUILD_BOOK)
  return()
endif()
find_program(QX_PANDOC pandoc REQUIRED)

set(qx_book ${PROJECT_BINARY_DIR}/book)
set(qx_book_sources ${PROJECT_SOURCE_DIR}/packaging/book)
file(MAKE_DIRECTORY ${qx_book})
file(GLOB qx_pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
set(qx_book_pages)
foreach(page ${qx_pages})
  get_filename_component(name ${page} NAME_WE)
  string(REGEX REPLACE "^README$" "index" name ${name})
  add_custom_command(OUTPUT ${qx_book}/${name}.html
    COMMAND ${QX_PANDOC} --from gfm --to html5 --template ${qx_book_sources}/page.html --toc --toc-depth 2 --no-highlight
      --lua-filter ${qx_book_sources}/links.lua --output ${name}.html ${page}
    DEPENDS ${page} ${qx_book_sources}/links.lua ${qx_book_sources}/page.html WORKING_DIRECTORY ${qx_book} VERBATIM)
  list(APPEND qx_book_pages ${qx_book}/${name}.html)
endforeach()
add_custom_target(qx_book ALL DEPENDS ${qx_book_pages})

set(qx_book_dir ${CMAKE_INSTALL_DATADIR}/doc/qxremconxfer-doc/html)
install(FILES ${qx_book_pages} ${qx_book_sources}/book.css DESTINATION ${qx_book_dir} COMPONENT book)
install(DIRECTORY docs/ DESTINATION ${qx_book_dir} COMPONENT book FILES_MATCHING
  PATTERN "*.svg" PATTERN "*.webp" PATTERN "*.png" PATTERN "*.json" PATTERN "man" EXCLUDE)
install(FILES ${qx_book_sources}/qxremconxfer-doc.doc-base DESTINATION ${CMAKE_INSTALL_DATADIR}/doc-base
  RENAME qxremconxfer-doc COMPONENT book)
