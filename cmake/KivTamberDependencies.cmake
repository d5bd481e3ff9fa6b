# Finds the system libraries the solver uses and wraps them in two interface
# targets: kivtamber_deps_threads (OpenThreads, APR atomics: needed by the
# public headers of the threaded factorization) and kivtamber_deps_ordering
# (COLAMD, CCOLAMD, METIS: used inside the library only).
# Every miss names the Debian package that provides the library.
find_package(Threads REQUIRED)
find_package(PkgConfig QUIET)
if(NOT PkgConfig_FOUND)
  message(FATAL_ERROR "pkg-config not found: install the Debian package 'pkg-config'")
endif()

pkg_check_modules(KIVT_OPENTHREADS QUIET openthreads)
if(NOT KIVT_OPENTHREADS_FOUND)
  message(FATAL_ERROR "OpenThreads not found (pkg-config openthreads): install the Debian package 'libopenthreads-dev'")
endif()
pkg_check_modules(KIVT_APR QUIET apr-1)
if(NOT KIVT_APR_FOUND)
  message(FATAL_ERROR "APR not found (pkg-config apr-1): install the Debian package 'libapr1-dev'")
endif()

function(kivt_find_suitesparse var header lib)
  find_path(${var}_INCLUDE_DIR ${header} PATH_SUFFIXES suitesparse)
  find_library(${var}_LIBRARY ${lib})
  if(NOT ${var}_INCLUDE_DIR OR NOT ${var}_LIBRARY)
    message(FATAL_ERROR "${lib} (${header}) not found: install the Debian package 'libsuitesparse-dev'")
  endif()
endfunction()
kivt_find_suitesparse(KIVT_COLAMD colamd.h colamd)
kivt_find_suitesparse(KIVT_CCOLAMD ccolamd.h ccolamd)
find_library(KIVT_SSCONFIG_LIBRARY suitesparseconfig)

find_path(KIVT_METIS_INCLUDE_DIR metis.h)
find_library(KIVT_METIS_LIBRARY metis)
if(NOT KIVT_METIS_INCLUDE_DIR OR NOT KIVT_METIS_LIBRARY)
  message(FATAL_ERROR "METIS (metis.h) not found: install the Debian package 'libmetis-dev'")
endif()

if(NOT TARGET kivtamber_deps_threads)
  add_library(kivtamber_deps_threads INTERFACE)
  target_include_directories(kivtamber_deps_threads INTERFACE ${KIVT_OPENTHREADS_INCLUDE_DIRS} ${KIVT_APR_INCLUDE_DIRS})
  target_link_libraries(kivtamber_deps_threads INTERFACE ${KIVT_OPENTHREADS_LINK_LIBRARIES} ${KIVT_APR_LINK_LIBRARIES})
  target_compile_options(kivtamber_deps_threads INTERFACE ${KIVT_APR_CFLAGS_OTHER})

  add_library(kivtamber_deps_ordering INTERFACE)
  target_include_directories(kivtamber_deps_ordering INTERFACE ${KIVT_COLAMD_INCLUDE_DIR} ${KIVT_METIS_INCLUDE_DIR})
  target_link_libraries(kivtamber_deps_ordering INTERFACE ${KIVT_COLAMD_LIBRARY} ${KIVT_CCOLAMD_LIBRARY} ${KIVT_METIS_LIBRARY})
  if(KIVT_SSCONFIG_LIBRARY)
    target_link_libraries(kivtamber_deps_ordering INTERFACE ${KIVT_SSCONFIG_LIBRARY})
  endif()
endif()
