dnl corvidine: the PHP extension with the trace core and the reporters in it.
dnl
dnl   cd ext && phpize && ./configure && make && make install
dnl
dnl The core (../core/src) and the reporters (../reporters/src) are C++17
dnl and are compiled into corvidine.so. Their file lists are read from the
dnl directories when configure runs, so a new core file needs no edit here
dnl (run configure again to pick it up).

PHP_ARG_ENABLE([corvidine],
  [whether to enable the corvidine tracing agent],
  [AS_HELP_STRING([--enable-corvidine], [Enable the corvidine tracing agent])],
  [yes])

if test "$PHP_CORVIDINE" != "no"; then
  PHP_REQUIRE_CXX()
  PHP_CXX_COMPILE_STDCXX([17], [mandatory], [PHP_CORVIDINE_STDCXX])

  AC_MSG_CHECKING([for the corvidine trace core])
  if test ! -f "$abs_srcdir/../core/include/corvidine/startup.h"; then
    AC_MSG_ERROR([cannot find ../core next to the extension sources in $abs_srcdir])
  fi
  AC_MSG_RESULT([$abs_srcdir/../core])

  dnl Paths relative to the extension's source directory. The core's objects
  dnl land in ../core/src and ../reporters/src of the build directory.
  vesk_glue_sources=`cd "$abs_srcdir" && find corvidine.c src -name '*.c' | LC_ALL=C sort | tr '\n' ' '`
  vesk_core_sources=`cd "$abs_srcdir/.." && ls core/src/*.cc reporters/src/*.cc 2>/dev/null | LC_ALL=C sort | tr '\n' ' '`
  if test -z "$vesk_core_sources"; then
    AC_MSG_ERROR([no sources found in ../core/src and ../reporters/src])
  fi

  vesk_includes="-I@ext_srcdir@/../core/include -I@ext_srcdir@/../reporters/include"
  vesk_warnings="-Wall -Wextra -Wno-missing-field-initializers"

  PKG_CHECK_MODULES([VESK_PCRE2], [libpcre2-8])
  PHP_EVAL_LIBLINE([$VESK_PCRE2_LIBS], [CORVIDINE_SHARED_LIBADD])
  PHP_ADD_LIBRARY([ssl], 1, [CORVIDINE_SHARED_LIBADD])
  PHP_ADD_LIBRARY([crypto], 1, [CORVIDINE_SHARED_LIBADD])
  PHP_ADD_LIBRARY([pthread], 1, [CORVIDINE_SHARED_LIBADD])
  PHP_SUBST([CORVIDINE_SHARED_LIBADD])

  dnl Only get_module is exported; the core's symbols stay inside the module.
  PHP_NEW_EXTENSION([corvidine], [$vesk_glue_sources], [$ext_shared], ,
    [-DZEND_ENABLE_STATIC_TSRMLS_CACHE=1 -fvisibility=hidden $vesk_includes $vesk_warnings], [yes])

  vesk_core_flags=`echo "$PHP_CORVIDINE_STDCXX -fvisibility=hidden $VESK_PCRE2_CFLAGS $vesk_includes $vesk_warnings" | $SED "s#@ext_srcdir@#$abs_srcdir#g"`
  PHP_ADD_SOURCES_X([..], [$vesk_core_sources], [$vesk_core_flags], [shared_objects_corvidine], [yes])

  dnl The Collector reporter (../reporters/collector): its Thrift client is
  dnl generated here, at configure time, into collector-gen of the build
  dnl directory; it links libthrift and libthriftz.
  AC_PATH_PROG([VESK_THRIFT], [thrift], [no])
  if test "$VESK_THRIFT" = "no"; then
    AC_MSG_ERROR([the thrift compiler is needed for the Collector reporter (Debian: thrift-compiler)])
  fi
  PKG_CHECK_MODULES([VESK_THRIFT_LIB], [thrift thrift-z])
  mkdir -p collector-gen
  $VESK_THRIFT --gen cpp:no_skeleton -out collector-gen "$abs_srcdir/../reporters/collector/collector.thrift" ||
    AC_MSG_ERROR([thrift could not compile collector.thrift])
  PHP_EVAL_LIBLINE([$VESK_THRIFT_LIB_LIBS], [CORVIDINE_SHARED_LIBADD])
  PHP_ADD_LIBRARY([z], 1, [CORVIDINE_SHARED_LIBADD])
  vesk_collector_sources=`cd "$abs_srcdir/.." && ls reporters/collector/*.cc | LC_ALL=C sort | tr '\n' ' '`
  vesk_collector_flags="$vesk_core_flags $VESK_THRIFT_LIB_CFLAGS -I$abs_srcdir/../reporters/collector -I`pwd`/collector-gen -I$abs_srcdir/../reporters/metrics/include"
  PHP_ADD_SOURCES_X([..], [$vesk_collector_sources], [$vesk_collector_flags], [shared_objects_corvidine], [yes])
  PHP_ADD_SOURCES_X([/collector-gen], [Collector.cpp collector_types.cpp], [$vesk_collector_flags -w],
    [shared_objects_corvidine], [yes])

  dnl The metric aggregates (../reporters/metrics) the Collector reporter keeps: the HDR
  dnl histogram and its log encoding (zlib, linked above), span aggregation.
  vesk_metrics_sources=`cd "$abs_srcdir/.." && ls reporters/metrics/src/*.cc | LC_ALL=C sort | tr '\n' ' '`
  PHP_ADD_SOURCES_X([..], [$vesk_metrics_sources], [$vesk_core_flags -I$abs_srcdir/../reporters/metrics/include],
    [shared_objects_corvidine], [yes])
  PHP_ADD_BUILD_DIR([$ext_builddir/../reporters/metrics/src])

  vesk_object_dirs=`cd "$abs_srcdir" && find src -type d | tr '\n' ' '`
  for vesk_dir in $vesk_object_dirs ../core/src ../reporters/src ../reporters/collector collector-gen; do
    PHP_ADD_BUILD_DIR([$ext_builddir/$vesk_dir])
  done
fi
