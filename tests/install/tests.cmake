# SPDX-License-Identifier: Apache-2.0
# The library with every option off, installed into an empty prefix, where a stranger builds three
# programs. It makes a build of its own, so once, beside a plain build, is enough.

function(install_test name step)
  add_test(NAME Install.${name}
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/install/install_test.sh ${step} ${CMAKE_SOURCE_DIR}
      ${CMAKE_BINARY_DIR}/install-test ${PROJECT_VERSION})
  set_tests_properties(Install.${name} PROPERTIES LABELS install TIMEOUT 300
    ENVIRONMENT "CC=${CMAKE_C_COMPILER};CXX=${CMAKE_CXX_COMPILER};LC_ALL=C.UTF-8")
endfunction()

install_test(TheLibraryBuildsWithEveryOptionOff install)
set_tests_properties(Install.TheLibraryBuildsWithEveryOptionOff PROPERTIES
  FIXTURES_SETUP installed)
install_test(TheInstalledFilesAreThoseListed files)
install_test(NoPathOfTheBuildIsInstalled paths)
install_test(AC99ProgramBuildsWithPkgConfigAndRuns c)
install_test(ACpp17ProgramBuildsWithPkgConfigAndRuns cxx)
install_test(ACpp17ProgramBuildsWithTheCMakePackageAndRuns cmake)
install_test(ThePackageSpeaksOfItsVersion version)
set_tests_properties(
  Install.TheInstalledFilesAreThoseListed Install.NoPathOfTheBuildIsInstalled
  Install.AC99ProgramBuildsWithPkgConfigAndRuns Install.ACpp17ProgramBuildsWithPkgConfigAndRuns
  Install.ACpp17ProgramBuildsWithTheCMakePackageAndRuns Install.ThePackageSpeaksOfItsVersion
  PROPERTIES FIXTURES_REQUIRED installed)

# The whole build, in a prefix that is given at the installation.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
if(TARGET sentrel-agent AND TARGET sentrel)
  foreach(test own:APrefixOfOnesOwnNeedsNothingInTheEnvironment
      system:TheDoctorLeadsAnInstallationToAnAnswer)
    string(REPLACE ":" ";" test ${test})
    list(POP_FRONT test step name)
    add_test(NAME Install.${name}
      COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/install/prefix_test.py ${step}
        ${CMAKE_BINARY_DIR} ${CMAKE_INSTALL_LIBDIR})
    set_tests_properties(Install.${name} PROPERTIES LABELS install TIMEOUT 300
      SKIP_RETURN_CODE 77
      ENVIRONMENT "CC=${CMAKE_C_COMPILER};CXX=${CMAKE_CXX_COMPILER};LC_ALL=C.UTF-8")
  endforeach()
endif()
