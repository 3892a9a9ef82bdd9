/* Replaces libstdc++'s file of this name, which adapts it to glibc. musl needs only one type under
 * glibc's name. <atomic>, <chrono>, <memory> and <mutex> would need more than that and do not
 * compile. */
typedef struct __locale_struct *__locale_t;
