# Writes an SPDX 2.3 document about all files under PSP_SPDX_ROOT, or only PSP_SPDX_FILES of them,
# to PSP_SPDX_FILE (both relative to it). Run as a script, or included by the installation.
# PSP_SPDX_NAME names what the files are together. No license has been chosen for psp: the document
# says so by NOASSERTION.
cmake_policy(VERSION 3.22)
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/../include/psp.h version REGEX "^#define PSP_VERSION_")
list(TRANSFORM version REPLACE "^.* " "")
list(JOIN version "." version)

if(NOT DEFINED PSP_SPDX_FILES)
  file(GLOB_RECURSE PSP_SPDX_FILES RELATIVE ${PSP_SPDX_ROOT} ${PSP_SPDX_ROOT}/*)
  list(FILTER PSP_SPDX_FILES EXCLUDE REGEX "^DEBIAN/")
endif()
list(REMOVE_ITEM PSP_SPDX_FILES ${PSP_SPDX_FILE})
list(SORT PSP_SPDX_FILES)

set(files "")
set(relations "")
set(sums "")
foreach(name IN LISTS PSP_SPDX_FILES)
  set(path ${PSP_SPDX_ROOT}/${name})
  if(IS_SYMLINK ${path} OR IS_DIRECTORY ${path})
    continue()
  endif()
  file(SHA1 ${path} sha1)
  file(SHA256 ${path} sha256)
  list(APPEND sums ${sha1})
  string(MD5 id ${name})
  set(type TEXT)
  if(name MATCHES "\\.(so[.0-9]*|a|png|gz)$")
    set(type BINARY)
  elseif(name MATCHES "\\.(h|c|y|css)$")
    set(type SOURCE)
  endif()
  list(APPEND files "    {
      \"fileName\": \"./${name}\",
      \"SPDXID\": \"SPDXRef-File-${id}\",
      \"fileTypes\": [\"${type}\"],
      \"checksums\": [
        { \"algorithm\": \"SHA1\", \"checksumValue\": \"${sha1}\" },
        { \"algorithm\": \"SHA256\", \"checksumValue\": \"${sha256}\" }
      ],
      \"licenseConcluded\": \"NOASSERTION\",
      \"licenseInfoInFiles\": [\"NOASSERTION\"],
      \"copyrightText\": \"NOASSERTION\"
    }")
  list(APPEND relations "    { \"spdxElementId\": \"SPDXRef-Package\", \"relationshipType\": \"CONTAINS\", \"relatedSpdxElement\": \"SPDXRef-File-${id}\" }")
endforeach()
list(SORT sums)
list(JOIN sums "" sums)
string(SHA1 code "${sums}")
# The document's name in the world follows from what it describes.
string(UUID uuid NAMESPACE 6ba7b811-9dad-11d1-80b4-00c04fd430c8 NAME "${PSP_SPDX_NAME} ${code}" TYPE SHA1)
string(TIMESTAMP created "%Y-%m-%dT%H:%M:%SZ" UTC)  # SOURCE_DATE_EPOCH, where it is set
list(JOIN files ",\n" files)
list(JOIN relations ",\n" relations)

file(WRITE ${PSP_SPDX_ROOT}/${PSP_SPDX_FILE} "{
  \"spdxVersion\": \"SPDX-2.3\",
  \"dataLicense\": \"CC0-1.0\",
  \"SPDXID\": \"SPDXRef-DOCUMENT\",
  \"name\": \"${PSP_SPDX_NAME}-${version}\",
  \"documentNamespace\": \"https://spdx.org/spdxdocs/${PSP_SPDX_NAME}-${version}-${uuid}\",
  \"creationInfo\": {
    \"created\": \"${created}\",
    \"creators\": [\"Organization: psp maintainers\", \"Tool: cmake-${CMAKE_VERSION}\"]
  },
  \"packages\": [
    {
      \"name\": \"${PSP_SPDX_NAME}\",
      \"SPDXID\": \"SPDXRef-Package\",
      \"versionInfo\": \"${version}\",
      \"supplier\": \"Organization: psp maintainers\",
      \"downloadLocation\": \"NOASSERTION\",
      \"filesAnalyzed\": true,
      \"packageVerificationCode\": {
        \"packageVerificationCodeValue\": \"${code}\",
        \"packageVerificationCodeExcludedFiles\": [\"./${PSP_SPDX_FILE}\"]
      },
      \"licenseConcluded\": \"NOASSERTION\",
      \"licenseDeclared\": \"NOASSERTION\",
      \"licenseInfoFromFiles\": [\"NOASSERTION\"],
      \"copyrightText\": \"NOASSERTION\"
    }
  ],
  \"files\": [
${files}
  ],
  \"relationships\": [
    { \"spdxElementId\": \"SPDXRef-DOCUMENT\", \"relationshipType\": \"DESCRIBES\", \"relatedSpdxElement\": \"SPDXRef-Package\" },
${relations}
  ]
}
")
