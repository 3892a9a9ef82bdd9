#ifndef TALVEK_TESTS_COMMON_C_CALLBACK_H
#define TALVEK_TESTS_COMMON_C_CALLBACK_H

#ifdef __cplusplus
extern "C" {
#endif

/* Sets the int that its argument points to and then sleeps for a minute. */
int SleepInC(void *pArg);

#ifdef __cplusplus
}
#endif

#endif
