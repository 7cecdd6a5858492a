# TAMREL_SANITIZE (declared with the other options): a comma-separated
# sanitizer list ("address,undefined" or "thread") applied to every target of
# the build, checked before use.
if(TAMREL_SANITIZE)
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_FLAGS "-fsanitize=${TAMREL_SANITIZE}")
  set(CMAKE_REQUIRED_LINK_OPTIONS "-fsanitize=${TAMREL_SANITIZE}")
  check_cxx_source_compiles("int main() { return 0; }" TAMREL_SANITIZER_WORKS)
  unset(CMAKE_REQUIRED_FLAGS)
  unset(CMAKE_REQUIRED_LINK_OPTIONS)
  if(NOT TAMREL_SANITIZER_WORKS)
    message(FATAL_ERROR "The compiler cannot build with -fsanitize=${TAMREL_SANITIZE}")
  endif()
  add_compile_options(-fsanitize=${TAMREL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TAMREL_SANITIZE})
endif()
