# SPDX-License-Identifier: Apache-2.0
# Built only with clang and -DSENTREL_FUZZ=ON. The code under test is compiled here once more, so
# that it is instrumented, without touching the other targets:
#   fuzz_decide -max_total_time=60
set(agent ${CMAKE_SOURCE_DIR}/agent)
add_executable(fuzz_decide fuzz/FuzzDecide.cpp agent/Oracle.cpp agent/RuleTexts.cpp
  ${agent}/Accounts.cpp ${agent}/Decide.cpp ${agent}/Grammar.cpp ${agent}/Pattern.cpp
  ${agent}/Plans.cpp ${agent}/RuleCheck.cpp ${agent}/RuleReader.cpp ${agent}/Rules.cpp
  ${agent}/Text.cpp ${agent}/Words.cpp)
target_include_directories(fuzz_decide PRIVATE agent ${agent})
target_compile_options(fuzz_decide PRIVATE -fsanitize=fuzzer,address)
target_link_options(fuzz_decide PRIVATE -fsanitize=fuzzer,address)
pkg_check_modules(TOML REQUIRED IMPORTED_TARGET tomlplusplus)
target_link_libraries(fuzz_decide PRIVATE PkgConfig::TOML sentrel_warnings)
if(SENTREL_RE2)
  pkg_check_modules(RE2 REQUIRED IMPORTED_TARGET re2)
  target_compile_definitions(fuzz_decide PRIVATE SENTREL_RE2)
  target_link_libraries(fuzz_decide PRIVATE PkgConfig::RE2)
endif()
