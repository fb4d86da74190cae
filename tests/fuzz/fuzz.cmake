# SPDX-License-Identifier: Apache-2.0
# Built only with clang and -DSENTREL_FUZZ=ON. The code under test is compiled here once more, so
# that it is instrumented, without touching the other targets. The test of label fuzz runs it for
# SENTREL_FUZZ_SECONDS; what it finds out stays in the build directory for the next run.
set(SENTREL_FUZZ_SECONDS 60 CACHE STRING "how long the fuzz test runs")
set(decide)
foreach(library sentrel_agent_base sentrel_agent_parse sentrel_agent_decide)
  get_target_property(sources ${library} SOURCES)
  list(APPEND decide ${sources})
endforeach()
list(TRANSFORM decide PREPEND ${CMAKE_SOURCE_DIR}/agent/)
add_executable(fuzz_decide fuzz/FuzzDecide.cpp agent/Oracle.cpp agent/RuleTexts.cpp ${decide})
target_include_directories(fuzz_decide PRIVATE agent ${CMAKE_SOURCE_DIR}/agent
  ${CMAKE_BINARY_DIR}/include)
target_compile_options(fuzz_decide PRIVATE -fsanitize=fuzzer,address)
target_link_options(fuzz_decide PRIVATE -fsanitize=fuzzer,address)
pkg_check_modules(TOML REQUIRED IMPORTED_TARGET tomlplusplus)
target_link_libraries(fuzz_decide PRIVATE PkgConfig::TOML sentrel_warnings)
if(SENTREL_RE2)
  pkg_check_modules(RE2 REQUIRED IMPORTED_TARGET re2)
  target_compile_definitions(fuzz_decide PRIVATE SENTREL_RE2)
  target_link_libraries(fuzz_decide PRIVATE PkgConfig::RE2)
endif()

# Where it starts: one good request of each operation. The letter chooses operation and caller.
set(seeds ${CMAKE_CURRENT_BINARY_DIR}/fuzz/seeds)
set(found ${CMAKE_CURRENT_BINARY_DIR}/fuzz/found)
file(MAKE_DIRECTORY ${found})
file(WRITE ${seeds}/mount "h-t vfat -o ro,uid=1000,umask=022 /dev/sda1 /media/usb")
file(WRITE ${seeds}/umount "i-l /media/usb")
file(WRITE ${seeds}/mount_cifs
  "j-o user=player,domain=HOME,password=Geheimnis //nas/music /media/music")
file(WRITE ${seeds}/umount_cifs "k/media/music")
file(WRITE ${seeds}/mknod "l-m 0640 /dev/player0 c 240 2")
file(WRITE ${seeds}/insmod "m/lib/modules/extra/snd-player.ko index=1 enable")
file(WRITE ${seeds}/rmmod "nsnd-player")
file(WRITE ${seeds}/systemctl "o--no-block start 'player.service' \"player-db\"")

add_test(NAME fuzz_decide COMMAND fuzz_decide -max_total_time=${SENTREL_FUZZ_SECONDS} -timeout=10
  -print_final_stats=1 -dict=${CMAKE_CURRENT_SOURCE_DIR}/fuzz/words.dict ${found} ${seeds})
math(EXPR limit "${SENTREL_FUZZ_SECONDS} + 60")
set_tests_properties(fuzz_decide PROPERTIES LABELS fuzz TIMEOUT ${limit})
