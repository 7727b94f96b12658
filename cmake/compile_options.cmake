# Flags of every target, tests included: warnings, reproducible output, sanitizers and, for MSVC,
# control flow guard.

if(MSVC)
  set(CMAKE_MSVC_RUNTIME_LIBRARY "MultiThreaded$<$<CONFIG:Debug>:Debug>")
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:/utf-8$<SEMICOLON>/W4$<SEMICOLON>/EHsc>)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:/permissive-$<SEMICOLON>/guard:cf>)
  file(TO_NATIVE_PATH "${PROJECT_SOURCE_DIR}/" ZAN_SOURCE_PREFIX)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:/Brepro$<SEMICOLON>/Zi>)
  add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,MSVC>:/d1trimfile:${ZAN_SOURCE_PREFIX}>) # not clang-cl
  add_link_options(/guard:cf /Brepro)
else()
  add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow)
  # Source paths inside the programs are relative to the project.
  add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
                      -ffile-prefix-map=${PROJECT_BINARY_DIR}/=
                      -fdebug-prefix-map=${PROJECT_BINARY_DIR}=.)
  add_compile_options(-ffunction-sections -fdata-sections)
  add_link_options(-Wl,--gc-sections)
endif()
if(MINGW)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-g>) # executable.cmake keeps the symbols apart
  add_link_options(-static)
endif()

if(WIN32) # Windows 10. The Filter Manager's records are those of Windows 8 and later.
  add_compile_definitions(_WIN32_WINNT=0x0A00 WINVER=0x0A00 NTDDI_VERSION=0x0A000000 NOMINMAX)
endif()

if(ZAN_SANITIZE)
  # GCC 12 sees uninitialized values in std::regex as soon as it is instrumented.
  add_compile_options(-fsanitize=${ZAN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
                      $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  add_link_options(-fsanitize=${ZAN_SANITIZE})
endif()
