function(wdc_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                           -Wold-style-cast -Wcast-align -Woverloaded-virtual)
  if(WDC_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
endfunction()

# Sanitizer builds. Every report stops the program: an UndefinedBehaviorSanitizer report that only
# printed would let a test (or a fuzz run) pass over it.
if(WDC_SANITIZE AND WDC_SANITIZE_THREAD)
  message(FATAL_ERROR "WDC_SANITIZE and WDC_SANITIZE_THREAD cannot be combined: use two build trees")
endif()
if(WDC_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
endif()
if(WDC_SANITIZE_THREAD)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=thread -fno-sanitize-recover=all)
endif()
