# SPDX-License-Identifier: Apache-2.0
# What holds of the tree and of the finished library, whoever wrote the last line. It is the same
# in every build and needs a library without instrumentation, so where.txt names plain builds only.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
find_program(SENTREL_HEADER_GXX g++ REQUIRED)
find_program(SENTREL_HEADER_GCC gcc REQUIRED)
find_program(SENTREL_HEADER_CLANGXX clang++)
find_program(SENTREL_HEADER_CLANG clang)

function(hygiene_test name script)
  add_test(NAME Hygiene.${name}
    COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/hygiene/${script} ${ARGN})
  set_tests_properties(Hygiene.${name} PROPERTIES LABELS hygiene TIMEOUT 120
    SKIP_RETURN_CODE 77)
endfunction()

set(root ${CMAKE_SOURCE_DIR})
set(src ${root}/service/src)
set(include ${CMAKE_BINARY_DIR}/include)
set(library $<TARGET_FILE:sentrel-client>)

hygiene_test(TheLibrarysIncludesPointDown includes.py library ${src} ${SENTREL_HEADERS})
hygiene_test(TheAgentIncludesInstalledHeadersOnly includes.py agent ${root}/agent)
hygiene_test(TheCommandIncludesTheCInterfaceOnlyButInOneFile includes.py cli ${root}/cli)

list(TRANSFORM DBUS_INCLUDE_DIRS PREPEND -I OUTPUT_VARIABLE dbus_flags)
list(JOIN dbus_flags " " dbus_flags)
hygiene_test(EachInstalledHeaderCompilesAloneWithGcc headers.py
  ${SENTREL_HEADER_GXX} ${SENTREL_HEADER_GCC} ${include} "${dbus_flags}" ${SENTREL_HEADERS})
if(SENTREL_HEADER_CLANGXX AND SENTREL_HEADER_CLANG)
  hygiene_test(EachInstalledHeaderCompilesAloneWithClang headers.py
    ${SENTREL_HEADER_CLANGXX} ${SENTREL_HEADER_CLANG} ${include} "${dbus_flags}" ${SENTREL_HEADERS})
endif()

# The other compiler leaves unused constructor variants out, so the list is g++'s.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  hygiene_test(TheLibraryExportsWhatIsListed library.py exports ${library}
    ${root}/service/exports.txt)
endif()
hygiene_test(ALogFoundEarlierTakesTheLibrarysLines library.py log ${library})
# Literal: programs are linked against this name, whatever the project's version says.
hygiene_test(TheSonameIsTheOneThatProgramsAreLinkedTo library.py soname ${library}
  libsentrel-client.so.1)
hygiene_test(TheInterfaceTextIsOfTheSonamesVersion library.py interface ${library}
  ${PROJECT_VERSION_MAJOR})

hygiene_test(EveryFileNamesItsLicence texts.py spdx ${root})
hygiene_test(TheVersionIsWrittenOnce texts.py version ${root})
hygiene_test(EveryPinNamesATest texts.py pins ${src} ${root}/tests)
hygiene_test(TheReadmesCodesAreTheHeaders texts.py codes ${root}/README.md
  ${src}/status/SR_Status.h)
hygiene_test(EachLogLineShownStandsWhereItSays texts.py lines ${root}/docs ${src})
hygiene_test(TheReadmesProgramCompilesAndReportsAMissingBus readme_example.py ${root}/README.md
  ${SENTREL_HEADER_GCC} ${include} ${library} COMM_FAILED)

hygiene_test(EachTestHasItsPlaceInTheListOfWhatRunsWhere ../where.py registered
  ${CMAKE_CURRENT_SOURCE_DIR}/where.txt ${CMAKE_BINARY_DIR})

# The checkers on small examples, good and bad; and what the scripts share, with stand-ins.
foreach(pair HygieneChecker:checkers_test.py Scripts:scripts_test.py)
  string(REPLACE ":" ";" pair ${pair})
  list(POP_FRONT pair suite script)
  set(script ${CMAKE_CURRENT_SOURCE_DIR}/hygiene/${script})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${script})
  execute_process(COMMAND ${Python3_EXECUTABLE} -B ${script} --list
    OUTPUT_VARIABLE cases COMMAND_ERROR_IS_FATAL ANY)
  foreach(case IN LISTS cases)
    add_test(NAME ${suite}.${case} COMMAND ${Python3_EXECUTABLE} -B ${script} ${case})
    set_tests_properties(${suite}.${case} PROPERTIES LABELS hygiene TIMEOUT 120
      SKIP_RETURN_CODE 77)
  endforeach()
endforeach()
