# cmake -D DIR=DIRECTORY -D OUTPUT=FILE -P EmbedAssets.cmake
# Makes the source OUTPUT with the table of Assets.h: every file of DIRECTORY as an array of bytes.
file(GLOB files RELATIVE ${DIR} ${DIR}/*)
list(SORT files)
set(arrays)
set(rows)
set(count 0)
foreach(name ${files})
  if(IS_DIRECTORY ${DIR}/${name} OR name MATCHES "[^A-Za-z0-9._-]")
    message(FATAL_ERROR "${DIR}/${name}: a file of the pages has a plain name and is in no subdirectory")
  endif()
  file(READ ${DIR}/${name} bytes HEX)
  file(SIZE ${DIR}/${name} size)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
  string(APPEND arrays "const unsigned char kFile${count}[] = {${bytes}0};\n")
  string(APPEND rows "    {\"${name}\", kFile${count}, ${size}},\n")
  math(EXPR count "${count} + 1")
endforeach()
file(WRITE ${OUTPUT}.new "#include \"tools/qxview/assets/Assets.h\"

namespace qx::view {

namespace {

${arrays}
}  // namespace

const EmbeddedFile kEmbeddedFiles[] = {
${rows}    {nullptr, nullptr, 0},
};
const unsigned long kEmbeddedFileCount = ${count};

}  // namespace qx::view
")
file(COPY_FILE ${OUTPUT}.new ${OUTPUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUTPUT}.new)
file(TOUCH ${OUTPUT})
