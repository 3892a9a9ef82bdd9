#ifndef TALVEK_COMMON_VERSION_H
#define TALVEK_COMMON_VERSION_H

/* The version of the libraries and of the program. The build, the packages and the pkg-config files
 * read it here.
 *
 * The first number changes with an interface that older programs cannot use any more, the second
 * with new entries, the third with corrections. */
#define TALVEK_VERSION "1.0.0"
#define TALVEK_VERSION_MAJOR 1
#define TALVEK_VERSION_MINOR 0
#define TALVEK_VERSION_PATCH 0

#endif
