/* Checks files against the MD5 side files beside them, as md5sum writes them: video.avi against
 * video.avi.md5.
 *
 *   md5_check video.avi export.zip
 *   md5_check -s .sum video.avi        the side file is video.avi.sum
 *
 * Exits with 1 when a file differs or cannot be checked. MD5 finds damage, not forgery.
 */

#include <talvek/common/COMMON.h>
#include <unistd.h>

#include "facts.h"

int main(int argc, char *argv[]) {
    const char *pSuffix = ".md5";
    while (FactsOption(argc, argv, "s:", "[-s suffix] <file>...") != -1) {
        pSuffix = optarg;
    }
    if (argc == optind) {
        FactsWrongUse();
    }

    int status = 0;
    FactsList("files");
    for (int i = optind; i < argc; ++i) {
        char digest[COM_MD5_HEX_SIZE + 1] = ""; /* the text is written without a NUL */
        FactsItem();
        FactsText("file", argv[i]);
        if (access(argv[i], R_OK) == 0) {
            COM_MakeFileMD5(digest, argv[i]);
        }
        FactsText("md5", digest[0] != '\0' ? digest : NULL);
        if (digest[0] != '\0' && COM_CheckFileMD5(argv[i], pSuffix) == 0) {
            FactsText("result", "good");
        } else {
            FactsText("result", "bad");
            status = 1;
        }
    }
    FactsListEnd();
    return FactsEnd(status);
}
