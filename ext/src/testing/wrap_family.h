/* TEST-ONLY: the wrap family of the framework's tests and its PHP functions
 * corvidine_test_wrap_*(), present only with corvidine.internal_test_hooks. */
#ifndef PHP_VESK_TESTING_WRAP_FAMILY_H
#define PHP_VESK_TESTING_WRAP_FAMILY_H

/* Module start: registers corvidine_test_wrap_calls() and
 * corvidine_test_wrap_state() when the test hooks are on. */
void php_vesk_test_wrap_minit(int type);

#endif
