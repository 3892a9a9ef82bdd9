#ifndef TALVEK_BASE_THREAD_ANNOTATIONS_H
#define TALVEK_BASE_THREAD_ANNOTATIONS_H

// State which lock guards what, for clang's analysis (-Wthread-safety; clang's documentation
// explains each attribute). Other compilers ignore them.
#if defined(__clang__)
#define TALVEK_THREAD(attribute) __attribute__((attribute))
#else
#define TALVEK_THREAD(attribute)
#endif

#define TALVEK_CAPABILITY(name) TALVEK_THREAD(capability(name))
#define TALVEK_SCOPED_CAPABILITY TALVEK_THREAD(scoped_lockable)
#define TALVEK_GUARDED_BY(mutex) TALVEK_THREAD(guarded_by(mutex))
#define TALVEK_PT_GUARDED_BY(mutex) TALVEK_THREAD(pt_guarded_by(mutex))
#define TALVEK_ACQUIRED_AFTER(mutex) TALVEK_THREAD(acquired_after(mutex))
#define TALVEK_ACQUIRE(...) TALVEK_THREAD(acquire_capability(__VA_ARGS__))
#define TALVEK_TRY_ACQUIRE(...) TALVEK_THREAD(try_acquire_capability(__VA_ARGS__))
#define TALVEK_RELEASE(...) TALVEK_THREAD(release_capability(__VA_ARGS__))
#define TALVEK_REQUIRES(...) TALVEK_THREAD(requires_capability(__VA_ARGS__))

#endif
