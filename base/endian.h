#ifndef TALVEK_BASE_ENDIAN_H
#define TALVEK_BASE_ENDIAN_H

namespace talvek {

enum class Endian { kBig, kLittle };

}  // namespace talvek

#endif
