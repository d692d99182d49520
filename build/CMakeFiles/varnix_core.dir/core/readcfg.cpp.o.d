CMakeFiles/varnix_core.dir/core/readcfg.cpp.o: \
 /work/main/core/readcfg.cpp /usr/include/stdc-predef.h \
 /work/main/core/readcfg.h /usr/include/c++/12/cstdio \
 /usr/include/x86_64-linux-gnu/c++/12/bits/c++config.h \
 /usr/include/x86_64-linux-gnu/c++/12/bits/os_defines.h \
 /usr/include/features.h /usr/include/features-time64.h \
 /usr/include/x86_64-linux-gnu/bits/wordsize.h \
 /usr/include/x86_64-linux-gnu/bits/timesize.h \
 /usr/include/x86_64-linux-gnu/sys/cdefs.h \
 /usr/include/x86_64-linux-gnu/bits/long-double.h \
 /usr/include/x86_64-linux-gnu/gnu/stubs.h \
 /usr/include/x86_64-linux-gnu/gnu/stubs-64.h \
 /usr/include/x86_64-linux-gnu/c++/12/bits/cpu_defines.h \
 /usr/include/c++/12/pstl/pstl_config.h /usr/include/stdio.h \
 /usr/include/x86_64-linux-gnu/bits/libc-header-start.h \
 /usr/lib/gcc/x86_64-linux-gnu/12/include/stddef.h \
 /usr/lib/gcc/x86_64-linux-gnu/12/include/stdarg.h \
 /usr/include/x86_64-linux-gnu/bits/types.h \
 /usr/include/x86_64-linux-gnu/bits/typesizes.h \
 /usr/include/x86_64-linux-gnu/bits/time64.h \
 /usr/include/x86_64-linux-gnu/bits/types/__fpos_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/__mbstate_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/__fpos64_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/__FILE.h \
 /usr/include/x86_64-linux-gnu/bits/types/FILE.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_FILE.h \
 /usr/include/x86_64-linux-gnu/bits/types/cookie_io_functions_t.h \
 /usr/include/x86_64-linux-gnu/bits/stdio_lim.h \
 /usr/include/x86_64-linux-gnu/bits/floatn.h \
 /usr/include/x86_64-linux-gnu/bits/floatn-common.h \
 /usr/include/x86_64-linux-gnu/bits/stdio.h /usr/include/c++/12/span \
 /usr/include/c++/12/array /usr/include/c++/12/compare \
 /usr/include/c++/12/concepts /usr/include/c++/12/type_traits \
 /usr/include/c++/12/initializer_list \
 /usr/include/c++/12/bits/functexcept.h \
 /usr/include/c++/12/bits/exception_defines.h \
 /usr/include/c++/12/bits/stl_algobase.h \
 /usr/include/c++/12/bits/cpp_type_traits.h \
 /usr/include/c++/12/ext/type_traits.h \
 /usr/include/c++/12/ext/numeric_traits.h \
 /usr/include/c++/12/bits/stl_pair.h /usr/include/c++/12/bits/move.h \
 /usr/include/c++/12/bits/utility.h \
 /usr/include/c++/12/bits/stl_iterator_base_types.h \
 /usr/include/c++/12/bits/iterator_concepts.h \
 /usr/include/c++/12/bits/ptr_traits.h \
 /usr/include/c++/12/bits/ranges_cmp.h \
 /usr/include/c++/12/bits/stl_iterator_base_funcs.h \
 /usr/include/c++/12/bits/concept_check.h \
 /usr/include/c++/12/debug/assertions.h \
 /usr/include/c++/12/bits/stl_iterator.h /usr/include/c++/12/new \
 /usr/include/c++/12/bits/exception.h \
 /usr/include/c++/12/bits/stl_construct.h \
 /usr/include/c++/12/debug/debug.h \
 /usr/include/c++/12/bits/predefined_ops.h \
 /usr/include/c++/12/bits/range_access.h /usr/include/c++/12/cstddef \
 /usr/include/c++/12/bits/ranges_base.h \
 /usr/include/c++/12/bits/max_size_type.h /usr/include/c++/12/numbers \
 /usr/include/c++/12/cctype /usr/include/ctype.h \
 /usr/include/x86_64-linux-gnu/bits/endian.h \
 /usr/include/x86_64-linux-gnu/bits/endianness.h \
 /usr/include/x86_64-linux-gnu/bits/types/locale_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/__locale_t.h \
 /usr/include/c++/12/cerrno /usr/include/errno.h \
 /usr/include/x86_64-linux-gnu/bits/errno.h /usr/include/linux/errno.h \
 /usr/include/x86_64-linux-gnu/asm/errno.h \
 /usr/include/asm-generic/errno.h /usr/include/asm-generic/errno-base.h \
 /usr/include/x86_64-linux-gnu/bits/types/error_t.h \
 /usr/include/c++/12/cstring /usr/include/string.h /usr/include/strings.h \
 /usr/include/c++/12/string_view /usr/include/c++/12/iosfwd \
 /usr/include/c++/12/bits/stringfwd.h \
 /usr/include/c++/12/bits/memoryfwd.h /usr/include/c++/12/bits/postypes.h \
 /usr/include/c++/12/cwchar /usr/include/wchar.h \
 /usr/include/x86_64-linux-gnu/bits/wchar.h \
 /usr/include/x86_64-linux-gnu/bits/types/wint_t.h \
 /usr/include/x86_64-linux-gnu/bits/types/mbstate_t.h \
 /usr/include/c++/12/bits/char_traits.h /usr/include/c++/12/cstdint \
 /usr/lib/gcc/x86_64-linux-gnu/12/include/stdint.h /usr/include/stdint.h \
 /usr/include/x86_64-linux-gnu/bits/stdint-intn.h \
 /usr/include/x86_64-linux-gnu/bits/stdint-uintn.h \
 /usr/include/c++/12/bits/functional_hash.h \
 /usr/include/c++/12/bits/hash_bytes.h \
 /usr/include/c++/12/bits/ostream_insert.h \
 /usr/include/c++/12/bits/cxxabi_forced.h \
 /usr/include/c++/12/bits/string_view.tcc
