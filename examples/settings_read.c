/* Reads settings out of a settings document (common/settings.h).
 *
 *   settings_read settings.xml Mode Bright
 *
 * A name also finds the first setting that begins with it. Exits with 1 when a setting is missing.
 */

#include <stdio.h>
#include <string.h>
#include <talvek/common/COMMON.h>
#include <unistd.h>

#include "facts.h"

enum { MAX_DOCUMENT = 65536 };

int main(int argc, char *argv[]) {
    while (FactsOption(argc, argv, "", "<file> <setting>...") != -1) {
    }
    if (argc < optind + 2) {
        FactsWrongUse();
    }

    /* The result is COM_DATA_PARTIAL for a document that is shorter than the buffer. */
    static char document[MAX_DOCUMENT + 1];
    if (COM_LoadDataFromFile(argv[optind], document, MAX_DOCUMENT) != COM_DATA_PARTIAL) {
        fprintf(stderr, "%s: not a file of 1 to %d bytes\n", argv[optind], MAX_DOCUMENT - 1);
        return 1;
    }

    int status = 0;
    FactsList("settings");
    for (int i = optind + 1; i < argc; ++i) {
        tXmlDataItem setting;
        memset(&setting, 0, sizeof setting);
        snprintf(setting.name, sizeof setting.name, "%s", argv[i]);
        if (COM_ParserXmlData(document, &setting) != 0) {
            fprintf(stderr, "%s: no such setting\n", argv[i]);
            status = 1;
            continue;
        }
        FactsItem();
        FactsText("name", argv[i]);
        if (setting.type == COM_XML_TYPE_TEXT) {
            FactsText("text", setting.text);
        } else {
            FactsNumber("value", setting.value, NULL);
            FactsNumber("min", setting.min, NULL);
            FactsNumber("max", setting.max, NULL);
            FactsText("choices", setting.text[0] != '\0' ? setting.text : NULL);
        }
    }
    FactsListEnd();
    return FactsEnd(status);
}
