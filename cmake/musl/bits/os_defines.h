/* Goes before libstdc++'s file of this name, which fits it to glibc. For musl there is nothing to fit,
 * except that the compiler at hand knows a type by glibc's name. <atomic>, <chrono>, <memory> and
 * <mutex> would need more than that and do not compile. */
typedef struct __locale_struct *__locale_t;
