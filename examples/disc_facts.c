/* Shows which disc is in an optical drive, in what state it is and how much of it is used.
 *
 *   disc_facts /dev/sr0
 *   disc_facts /dev/sg1      the drive's SCSI generic node
 *
 * A rewritable DVD is mounted below /var while its used capacity is measured. Exits with 1 when
 * there is no disc that can be identified.
 */

#include <stdio.h>
#include <string.h>
#include <talvek/dev/DEV.h>
#include <unistd.h>

#include "facts.h"

/* Indexed by DEV_CLASS_..., DEV_MEDIA_... and DEV_DISC_... */
static const char *const kClasses[] = {NULL,       "CD",      "DVD-ROM", "DVD-R/RW",
                                       "DVD+R/RW", "DVD-RAM", "DDCD",    "BD"};
static const char *const kMedia[] = {NULL, "read-only", "write-once", "rewritable", "RAM"};
static const char *const kStates[] = {"empty", "appendable", "finalized", "random access"};

#define NAME(table, index) ((index) < sizeof(table) / sizeof *(table) ? (table)[index] : NULL)

static const char *Reason(int result) {
    switch (result) {
        case DEV_DISC_INFO_OPEN_FAILED:
            return "the drive cannot be opened";
        case DEV_DISC_INFO_NOT_READY:
            return "no disc, or the tray is open";
        case DEV_DISC_INFO_UNSUPPORTED:
            return "the disc is of an unknown kind, or the drive does not answer";
        default:
            return "not an optical drive";
    }
}

int main(int argc, char *argv[]) {
    while (FactsOption(argc, argv, "", "</dev/sr... | /dev/sg...>") != -1) {
    }
    if (argc != optind + 1) {
        FactsWrongUse();
    }

    const char *pNode = argv[optind];
    if (strlen(pNode) >= DEV_INFO_PATH_SIZE) {
        FactsWrongUse();
    }
    tDevInfo drive;
    memset(&drive, 0, sizeof drive);
    drive.isOptical = 1;
    /* The record has both nodes of the drive; the other one is found by its SCSI address. */
    const int isGeneric = strncmp(pNode, "/dev/sg", 7) == 0;
    strcpy(isGeneric ? drive.sgPath : drive.devPath, pNode);
    const int result = isGeneric ? Dev_SgToSd(pNode, drive.devPath, sizeof drive.devPath)
                                 : Dev_SdToSg(pNode, drive.sgPath, sizeof drive.sgPath);
    if (result != 0) {
        fprintf(stderr, "%s: no drive with a SCSI generic node\n", pNode);
        return 1;
    }

    const int found = Dev_GetDiscInfo(&drive);
    if (found != DEV_DISC_INFO_OK) {
        fprintf(stderr, "%s: %s\n", pNode, Reason(found));
        return 1;
    }
    const tDiscInfo *pDisc = &drive.u.disc;
    FactsText("drive", drive.devPath);
    FactsText("class", NAME(kClasses, pDisc->discClass));
    FactsText("media", NAME(kMedia, pDisc->mediaKind));
    if (pDisc->discClass != DEV_CLASS_DVD_ROM) { /* drives are not asked for its state */
        FactsText("state", NAME(kStates, pDisc->discStatus));
        FactsNumber("last_track", pDisc->lastTrack, NULL);
    }
    if (pDisc->discClass == DEV_CLASS_CD) {
        FactsNumber("sessions", pDisc->sessions, NULL);
    }
    FactsNumber("total", (int64_t)pDisc->totalKB, "KB");
    FactsNumber("used", (int64_t)pDisc->usedKB, "KB");
    return FactsEnd(0);
}
