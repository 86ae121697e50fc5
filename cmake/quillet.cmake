# What every target of the project shares.

# Warnings as errors, sanitizers when asked for.
add_library(quillet_options INTERFACE)
target_compile_options(quillet_options INTERFACE -Wall -Wextra -Wshadow -Wconversion -Werror
	$<$<CXX_COMPILER_ID:Clang>:-Wno-sign-conversion> # clang counts it to -Wconversion in C++, gcc does not
	# On ARM gcc notes what gcc 6 passed in another way; nothing here was built by that.
	$<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},armv7l>>:-Wno-psabi>
	# A false alarm of gcc 12 on "literal" + std::string when it optimises for a release, its bug 105651.
	$<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
if(QUILLET_SANITIZE)
	target_compile_options(quillet_options INTERFACE -fsanitize=${QUILLET_SANITIZE} -fno-omit-frame-pointer
		-fno-sanitize-recover=all)
	target_link_options(quillet_options INTERFACE -fsanitize=${QUILLET_SANITIZE})
	if(CMAKE_SYSTEM_PROCESSOR STREQUAL armv7l)
		# The address of a Thumb function is odd, and gcc's UBSan takes a reference to one for misaligned.
		target_compile_options(quillet_options INTERFACE -marm)
	endif()
endif()
if(QUILLET_FUZZ)
	target_compile_options(quillet_options INTERFACE -fsanitize=fuzzer-no-link,address,undefined
		-fno-omit-frame-pointer -fno-sanitize-recover=all)
	target_link_options(quillet_options INTERFACE -fsanitize=address,undefined)
endif()

# The agent and the platform libraries: neither exceptions nor run-time type information.
add_library(quillet_plain_cxx INTERFACE)
target_link_libraries(quillet_plain_cxx INTERFACE quillet_options)
target_compile_options(quillet_plain_cxx INTERFACE
	$<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions> $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>)

# Seconds that a test of the short tier may take. What a sanitizer or an emulator makes slow is not what hangs.
set(QUILLET_TEST_TIMEOUT 120)
if(QUILLET_SANITIZE OR CMAKE_CROSSCOMPILING)
	set(QUILLET_TEST_TIMEOUT 300)
endif()

# quillet_test(<name> SOURCES <file>... [LIBS <target>...] [LONG <seconds>] [SOCKETCAN]): one GoogleTest program, run as
# one test of the short tier, and with LONG once more in the long tier as long_<name>, with QUILLET_TIER=long, within
# those seconds. SOCKETCAN says that it needs a kernel with CAN: such a test has the label vm instead and runs in the
# machines of tests/vm. In a cross build the tests run emulated, and the environment tells them what a program has to
# know that starts others: the emulator's command, and the plugin for the broker, which is the building machine's.
# The test's own code is compiled without optimisation and reads GoogleTest's headers precompiled: with a hundred such
# files that is most of the time of a build.
function(quillet_test name)
	cmake_parse_arguments(arg "SOCKETCAN" "LONG" "SOURCES;LIBS" ${ARGN})
	add_executable(${name} ${arg_SOURCES})
	target_link_libraries(${name} PRIVATE ${arg_LIBS} quillet_options GTest::gtest GTest::gmock GTest::gtest_main)
	target_compile_options(${name} PRIVATE -O0)
	target_precompile_headers(${name} REUSE_FROM quillet_test_headers)
	target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
	set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
	add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
	set(tier short)
	if(arg_SOCKETCAN)
		set(tier vm)
		set_property(GLOBAL APPEND PROPERTY QUILLET_VM_TESTS ${name})
	endif()
	set_tests_properties(${name} PROPERTIES LABELS ${tier} TIMEOUT ${QUILLET_TEST_TIMEOUT})
	if(CMAKE_CROSSCOMPILING)
		list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
		set_tests_properties(${name} PROPERTIES ENVIRONMENT
			"QUILLET_EMULATOR=${emulator};QUILLET_BROKER_PLUGIN=${CMAKE_BINARY_DIR}/host/lib/quillet_broker_plugin.so")
	endif()
	if(arg_LONG)
		add_test(NAME long_${name} COMMAND ${name} --gtest_brief=1)
		set_tests_properties(long_${name} PROPERTIES LABELS long TIMEOUT ${arg_LONG} ENVIRONMENT QUILLET_TIER=long)
	elseif(QUILLET_TESTS STREQUAL LONG)
		set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
	endif()
endfunction()

# quillet_wrap(<target> <scope> <function>...): calls of the functions in a program go to __wrap_<function>, which finds
# the function itself as __real_<function>. Where time_t or off_t were widened a call carries another name than it has
# in the source; the wrapper's source stays the same.
set(QUILLET_WIDE_NAMES clock_gettime=__clock_gettime64 fcntl=__fcntl_time64 fstat=__fstat64_time64
	getsockopt=__getsockopt64 ioctl=__ioctl_time64 lseek=lseek64 open=open64 ppoll=__ppoll64
	pthread_cond_clockwait=__pthread_cond_clockwait64 recvmsg=__recvmsg64 sendmsg=__sendmsg64
	setsockopt=__setsockopt64 time=__time64 timerfd_settime=__timerfd_settime64 timespec_get=__timespec_get64)
function(quillet_wrap target scope)
	foreach(name ${ARGN})
		set(linked ${name})
		if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND "${QUILLET_WIDE_NAMES}" MATCHES "(^|;)${name}=([a-z0-9_]+)")
			set(linked ${CMAKE_MATCH_2})
			target_compile_definitions(${target} ${scope} __wrap_${name}=__wrap_${linked} __real_${name}=__real_${linked})
		endif()
		target_link_options(${target} ${scope} -Wl,--wrap=${linked})
	endforeach()
endfunction()

# quillet_fuzz_target(<name> SOURCES <file>... CORPUS <directory> [LIBS <target>...]): the sources define
# LLVMFuzzerTestOneInput. With QUILLET_FUZZ (clang) it becomes the fuzzer build/fuzz/<name>; else a program that gives
# each file of the committed corpus to it once, run as the test <name> of the short tier. CORPUS is relative to the
# calling directory. What runs the fuzzers reads build/fuzz/targets.txt, a line "<name> <corpus>" for each.
function(quillet_fuzz_target name)
	cmake_parse_arguments(arg "" "CORPUS" "SOURCES;LIBS" ${ARGN})
	add_executable(${name} ${arg_SOURCES})
	target_link_libraries(${name} PRIVATE ${arg_LIBS} quillet_options)
	target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
	set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
	if(QUILLET_FUZZ)
		target_link_options(${name} PRIVATE -fsanitize=fuzzer)
		set_property(GLOBAL APPEND_STRING PROPERTY QUILLET_FUZZ_TARGETS "${name} ${CMAKE_CURRENT_SOURCE_DIR}/${arg_CORPUS}\n")
	else()
		target_sources(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/fuzz/replay_main.cpp)
		add_test(NAME ${name} COMMAND ${name} ${CMAKE_CURRENT_SOURCE_DIR}/${arg_CORPUS})
		set_tests_properties(${name} PROPERTIES LABELS short TIMEOUT ${QUILLET_TEST_TIMEOUT})
	endif()
endfunction()
