# SPDX-License-Identifier: Apache-2.0
# The compiler checks formats through the public headers: a wrong argument is refused, %m is accepted, and a source that
# is compiled with -Wpedantic can opt out. Each source is only parsed; a test that expects a refusal looks for its text.
set(format_check ${CMAKE_C_COMPILER} -std=c11 -Wall -Werror -fsyntax-only -I${PROJECT_SOURCE_DIR}/include)
add_test(NAME headers.format.wrong_argument COMMAND ${format_check} ${CMAKE_CURRENT_LIST_DIR}/format_wrong.c)
set_tests_properties(headers.format.wrong_argument PROPERTIES PASS_REGULAR_EXPRESSION "error: format .*-Werror")
add_test(NAME headers.format.error_text COMMAND ${format_check} ${CMAKE_CURRENT_LIST_DIR}/format_error_text.c)
add_test(NAME headers.format.opt_out COMMAND ${format_check} -Wpedantic -DQV_NO_PRINTF_CHECK
    ${CMAKE_CURRENT_LIST_DIR}/format_error_text.c)
