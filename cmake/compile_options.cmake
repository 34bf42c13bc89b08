# Flags that every target of this project is compiled with.
add_library(tolm_options INTERFACE)
target_compile_options(tolm_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion -Woverloaded-virtual>
  $<$<BOOL:${TOLM_WARNINGS_AS_ERRORS}>:-Werror>)
if(TOLM_SANITIZE)
  add_compile_options(-fsanitize=${TOLM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TOLM_SANITIZE})
  # In instrumented code GCC sees uninitialised members where there are none, in std::regex among others.
  target_compile_options(tolm_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()
