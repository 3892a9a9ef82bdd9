#ifndef TALVEK_TESTS_COMMON_C_CALLBACK_H
#define TALVEK_TESTS_COMMON_C_CALLBACK_H

#ifdef __cplusplus
extern "C" {
#endif

/* Each sets the int that its argument points to and then sleeps for a minute. */
int SleepInC(void *pArg);
void SleepOnLineInC(const char *pLine, void *pUser);

#ifdef __cplusplus
}
#endif

#endif
