# SPDX-License-Identifier: Apache-2.0
# What installs beside the binaries, and what is written about it.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(root ${CMAKE_SOURCE_DIR})
set(man ${root}/docs/man)

# packaging_test(NAME LABEL SCRIPT ARGUMENT...)
function(packaging_test name label script)
  add_test(NAME Packaging.${name}
    COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_SOURCE_DIR}/tests/packaging/${script} ${ARGN})
  set_tests_properties(Packaging.${name} PROPERTIES LABELS "${label}" TIMEOUT 120
    SKIP_RETURN_CODE 77 ENVIRONMENT "LC_ALL=C.UTF-8")
endfunction()

packaging_test(EachFunctionHasItsManualPage hygiene manual_test.py functions
  ${root}/service/src/api/SR_API.h ${man} ${root}/docs/CMakeLists.txt)
packaging_test(TheManualNamesEachStatus hygiene manual_test.py statuses
  ${root}/service/src/status/SR_Status.h ${man}/SR_Mount.3 ${man}/SR_ErrorToString.3
  ${man}/sentrel.7 ${root}/docs/status-codes.md)
file(GLOB pages CONFIGURE_DEPENDS ${man}/*.[1-9])
packaging_test(TheManualPagesAreClean hygiene manual_test.py clean ${pages})
packaging_test(EachLibraryIsInEachListOfWhatIsNeeded hygiene dependencies_test.py ${root})

if(TARGET sentrel)
  packaging_test(EachOptionOfTheCommandHasItsManual hygiene manual_test.py options
    ${man}/sentrel.1 $<TARGET_FILE:sentrel> ${root}/cli/main.cpp)
  packaging_test(EachOperationOfTheCommandHasItsManual hygiene manual_test.py operations
    ${man}/sentrel.1 $<TARGET_FILE:sentrel>)
endif()

if(TARGET sentrel-agent)
  set(unit ${CMAKE_BINARY_DIR}/packaging/sentrel-agent.service)
  packaging_test(EachOptionOfTheAgentHasItsManual hygiene manual_test.py options
    ${man}/sentrel-agent.8 $<TARGET_FILE:sentrel-agent> ${root}/agent/Options.cpp)
  packaging_test(TheUnitIsValid hygiene unit_test.py valid ${unit}
    $<TARGET_FILE:sentrel-agent>)
  packaging_test(TheUnitLetsMountsBeSeen hygiene unit_test.py mounts ${unit})
  packaging_test(TheUnitGivesAReasonForWhatItLeavesOut hygiene unit_test.py reasons ${unit})
  packaging_test(TheUnitLetsTheAgentsSystemCallsThrough hygiene unit_test.py calls ${unit}
    ${root}/agent)
  packaging_test(TheUnitsExposureIsNoHigherThanWritten hygiene unit_test.py score ${unit} 6.2)
  packaging_test(TheInterfaceFileIsWhatTheAgentAnswers packaging interface_test.py
    ${root}/packaging/org.sentrel.sr_agent.xml $<TARGET_FILE:sentrel-agent>)
  set(policy ${root}/packaging/org.sentrel.sr_agent.conf)
  set(activation ${CMAKE_BINARY_DIR}/packaging/org.sentrel.sr_agent.service)
  packaging_test(ThePolicyNamesItsDestinationInEveryRuleAndDeniesNothing hygiene
    policy_test.py form ${policy} ${activation})
  packaging_test(ThePolicyLetsRootAndTheGroupInAndNobodyElse policy policy_test.py bus
    ${policy} $<TARGET_FILE:sentrel-agent>)
  packaging_test(TheBusStartsTheAgentAtTheFirstCall policy policy_test.py start
    ${policy} $<TARGET_FILE:sentrel-agent> ${activation})
endif()
if(TARGET sentrel-agent AND TARGET sentrel)
  packaging_test(TheDoctorSaysWhatThePolicyDeniesAndHowToMendIt policy policy_test.py doctor
    ${policy} $<TARGET_FILE:sentrel-agent> $<TARGET_FILE:sentrel>)
  set(recipe ${root}/packaging/yocto/sentrel_${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}.bb)
  packaging_test(TheRecipeIsWellFormed hygiene recipe_test.py syntax ${recipe})
  packaging_test(TheRecipeAgreesWithTheTree hygiene recipe_test.py facts ${recipe} ${root}
    ${PROJECT_VERSION})
  packaging_test(TheRecipeHasAPackageForEachInstalledFile hygiene recipe_test.py files
    ${recipe} ${CMAKE_BINARY_DIR} ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_LIBDIR})
endif()

# The header-only convenience, against the agent's own splitter and against a bus.
if(TARGET sentrel-agent)
  sentrel_test(ArgumentsTest packaging/ArgumentsTest.cpp LIBRARY LABEL unit
    LIBS sentrel_agent_parse)
  add_executable(split packaging/split.cpp)
  target_link_libraries(split PRIVATE sentrel_agent_parse sentrel_warnings)
  add_dependencies(release_tests split)
  packaging_test(ThePythonModuleCalls packaging python_test.py $<TARGET_FILE:sentrel-client>
    $<TARGET_FILE:scripted_agent> $<TARGET_FILE:split> ${root}/service/src/status/SR_Status.h)
endif()
if(TARGET sentrel-agent)
  sentrel_test(DocumentedRulesTest packaging/DocumentedRulesTest.cpp LIBRARY LABEL unit
    LIBS sentrel_agent_decide)
  target_compile_definitions(DocumentedRulesTest PRIVATE SENTREL_DOCS="${root}/docs")
endif()
sentrel_test(HelpersTest packaging/HelpersTest.cpp LIBRARY LABEL bus)

# The programs that the guides show.
foreach(example serve.cpp first.c)
  get_filename_component(name ${example} NAME_WE)
  add_executable(example_${name} ${root}/docs/examples/${example})
  target_link_libraries(example_${name} PRIVATE sentrel::client sentrel_warnings)
  add_dependencies(release_tests example_${name})
endforeach()
add_dependencies(release_tests scripted_agent)
packaging_test(TheServingExampleServes packaging examples_test.py serve $<TARGET_FILE:example_serve>
  ${root}/docs/examples/serve.cpp)
packaging_test(TheFirstCallIsMade packaging examples_test.py first $<TARGET_FILE:example_first>
  $<TARGET_FILE:scripted_agent> ${root}/docs/examples/first.c)
packaging_test(TheGuidesShowTheCompiledServer hygiene examples_test.py quoted
  ${root}/docs/examples/serve.cpp ${root}/docs/serving.md)
packaging_test(TheGuidesShowTheCompiledFirstCall hygiene examples_test.py quoted
  ${root}/docs/examples/first.c ${root}/docs/first-call.md)
packaging_test(TheSymbolsFileListsWhatTheLibraryExports hygiene symbols_test.py
  ${root}/debian/libsentrel-client1.symbols ${root}/service/exports.txt)

# A fresh Debian system, made for the purpose: minutes, root and the network.
add_test(NAME Packaging.ThePackagesInstallRunUpgradeAndPurge
  COMMAND ${root}/tests/packaging/debian_test.sh ${root} ${CMAKE_BINARY_DIR}/debian-test)
set_tests_properties(Packaging.ThePackagesInstallRunUpgradeAndPurge PROPERTIES
  LABELS slow TIMEOUT 1800 SKIP_RETURN_CODE 77)

# The reference of the installed headers: fails on a public member without a comment.
find_program(SENTREL_DOXYGEN doxygen)
mark_as_advanced(SENTREL_DOXYGEN)
if(SENTREL_DOXYGEN)
  add_test(NAME Packaging.EachPublicMemberIsDescribed WORKING_DIRECTORY ${root}
    COMMAND sh -c "(cat docs/doxygen/Doxyfile; echo \"OUTPUT_DIRECTORY=$1\") | $2 -" sh
      ${CMAKE_BINARY_DIR}/reference ${SENTREL_DOXYGEN})
  set_tests_properties(Packaging.EachPublicMemberIsDescribed PROPERTIES
    LABELS hygiene TIMEOUT 120)
endif()

# The binary interface against that of the last release, stored by `abi.sh store`: of x86-64, by g++,
# with debugging information, as where.txt names the builds.
set(abi ${root}/packaging/abi/libsentrel-client.abi)
foreach(test compare:TheBinaryInterfaceIsThatOfTheLastRelease sees:AMemberThatMovedIsSeen)
  string(REPLACE ":" ";" test ${test})
  list(POP_FRONT test step name)
  add_test(NAME Packaging.${name} COMMAND ${root}/tests/packaging/abi.sh ${step}
    $<TARGET_FILE:sentrel-client> ${CMAKE_BINARY_DIR}/include/sentrel ${abi})
  set_tests_properties(Packaging.${name} PROPERTIES LABELS abi TIMEOUT 120 SKIP_RETURN_CODE 77)
endforeach()
