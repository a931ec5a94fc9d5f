# External libraries, as imported names that the floors link to.
# Static by default: every call of mxadmin pays for its start, and the dynamic loader's work on these libraries is
# longer than that of all else before main (figures in docs/architecture.md).
set(Boost_USE_STATIC_LIBS ${MXADMIN_STATIC_LIBS})
find_package(Boost 1.74 REQUIRED COMPONENTS program_options filesystem)
find_package(Threads REQUIRED)

function(kavro_external name)
  set(candidates ${ARGN})
  if(MXADMIN_STATIC_LIBS)
    list(TRANSFORM candidates PREPEND "lib")
    list(TRANSFORM candidates APPEND ".a")
  endif()
  find_library(KAVRO_${name} NAMES ${candidates} REQUIRED)
  add_library(external::${name} INTERFACE IMPORTED GLOBAL)
  target_link_libraries(external::${name} INTERFACE ${KAVRO_${name}})
endfunction()

kavro_external(sqlite sqlite3)
kavro_external(crypto crypto)
kavro_external(idn idn)
kavro_external(crypt crypt)
target_link_libraries(external::sqlite INTERFACE m ${CMAKE_DL_LIBS} Threads::Threads)
target_link_libraries(external::crypto INTERFACE ${CMAKE_DL_LIBS} Threads::Threads)
