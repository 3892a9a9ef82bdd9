// The cost of scraping, stripping and replacing. The key search is measured beside strcasestr, XML
// values beside libxml2's reader; the others are measured at sizes ten times apart, to show that
// the cost grows with the size. Needs Google Benchmark and libxml2.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libxml/xmlreader.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "bench/quiet.h"
#include "bench/side_by_side.h"
#include "common/html.h"
#include "common/text.h"

namespace {

// --- Key search over 1 MiB without a hit ---

enum Text : int { kXml, kHeaders, kProse, kRepeatedLetter, kRepeatedPair };

// A document of `size` characters that holds none of the keys below.
std::string MakeText(Text kind, size_t size) {
    const char *pieces[] = {
        "<setting name=\"brightness\" min=\"0\" max=\"10\" value=\"5\"/>\n",
        "Content-Type: text/html; charset=utf-8\r\nCache-Control: no-cache\r\n",
        "The quick brown fox jumps over the lazy dog, and the dog lets it pass. ",
        "r",
        "ab",
    };
    std::string text;
    while (text.size() < size) {
        text += pieces[kind];
    }
    text.resize(size);
    return text;
}

// The last two keys match at every place, or every other place, up to their last character.
const char *const kKeys[] = {
    "<temperature>", "WWW-Authenticate: Digest", "realm=", "rrrrrrrrrra",
    "abababababababababababababababababababababababababababababababababaa"};
const char *const kNames[] = {"xml", "headers", "prose", "key of 11 that nearly matches",
                              "key of 68 that nearly matches"};

template <typename Search>
void SearchWithoutHit(benchmark::State &state, Search search) {
    const auto kind = static_cast<Text>(state.range(0));
    const std::string text = MakeText(kind, 1 << 20);
    for (auto _ : state) {
        const char *found = search(text.c_str(), kKeys[kind]);
        if (found != nullptr) {
            state.SkipWithError("the key is in the text");
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
    state.SetLabel(kNames[kind]);
}

void KeySearch(benchmark::State &state) {
    SearchWithoutHit(state, COM_StrCaseStr);
}
void KeySearchStrcasestr(benchmark::State &state) {
    SearchWithoutHit(state, [](const char *text, const char *key) {
        return static_cast<const char *>(strcasestr(text, key));
    });
}
BENCHMARK(KeySearch)->DenseRange(kXml, kRepeatedPair);
BENCHMARK(KeySearchStrcasestr)->DenseRange(kXml, kRepeatedPair);

// --- One value of an XML reply ---

// A device's reply with `count` values before the one to read.
std::string MakeReply(int64_t count) {
    std::string reply = "<?xml version=\"1.0\"?><reply>\n";
    for (int64_t i = 0; i < count; ++i) {
        reply += "  <value" + std::to_string(i) + ">" + std::to_string(i * i) + "</value" +
                 std::to_string(i) + ">\n";
    }
    return reply + "  <uptime>86400</uptime>\n</reply>\n";
}

void XmlValue(benchmark::State &state) {
    const std::string reply = MakeReply(state.range(0));
    const Quiet quiet;
    char value[32] = "";
    for (auto _ : state) {
        if (COM_GetXMLData(reply.c_str(), "uptime", value, sizeof value) == nullptr ||
            strcmp(value, "86400") != 0) {
            state.SkipWithError("the value was not found");
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(reply.size()));
}

bool ReadWithLibxml2(const std::string &reply, const char *pTag, char *pDst, size_t size) {
    xmlTextReaderPtr reader = xmlReaderForMemory(reply.data(), static_cast<int>(reply.size()),
                                                 nullptr, nullptr, XML_PARSE_NONET);
    bool found = false;
    while (!found && xmlTextReaderRead(reader) == 1) {
        if (xmlTextReaderNodeType(reader) == XML_READER_TYPE_ELEMENT &&
            xmlStrcmp(xmlTextReaderConstLocalName(reader),
                      reinterpret_cast<const xmlChar *>(pTag)) == 0) {
            xmlChar *text = xmlTextReaderReadString(reader);
            snprintf(pDst, size, "%s", reinterpret_cast<const char *>(text));
            xmlFree(text);
            found = true;
        }
    }
    xmlFreeTextReader(reader);
    return found;
}

void XmlValueLibxml2(benchmark::State &state) {
    const std::string reply = MakeReply(state.range(0));
    char value[32] = "";
    for (auto _ : state) {
        if (!ReadWithLibxml2(reply, "uptime", value, sizeof value) || strcmp(value, "86400") != 0) {
            state.SkipWithError("the value was not found");
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(reply.size()));
}
BENCHMARK(XmlValue)->Arg(10)->Arg(1000);
BENCHMARK(XmlValueLibxml2)->Arg(10)->Arg(1000);

// --- HTML to text ---

void StripHtml(benchmark::State &state) {
    std::string page;
    while (page.size() < static_cast<size_t>(state.range(0))) {
        page += "<tr><td class=\"name\">Channel</td><td>recording since 12:00</td></tr><br>\n";
    }
    for (auto _ : state) {
        state.PauseTiming();
        std::string source = page;  // stripping changes it
        state.ResumeTiming();
        char *text = nullptr;
        if (COM_StripHtmlCode(source.data(), &text) < 1) {
            state.SkipWithError("no text");
        }
        free(text);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(page.size()));
}
BENCHMARK(StripHtml)->Arg(10000)->Arg(100000)->Arg(1000000);

// --- Replacement ---

void ReplaceStr(benchmark::State &state, const char *pNew) {
    std::string text;
    for (int64_t i = 0; i < state.range(0); ++i) {
        text += "path/to/file ";
    }
    for (auto _ : state) {
        state.PauseTiming();
        char *buf = strdup(text.c_str());
        state.ResumeTiming();
        buf = COM_ReplaceStr(buf, "/to/", pNew);
        benchmark::DoNotOptimize(buf);
        free(buf);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK_CAPTURE(ReplaceStr, shorter, "/")->Arg(10000)->Arg(100000);
BENCHMARK_CAPTURE(ReplaceStr, longer, "/with/more/in/it/")->Arg(10000)->Arg(100000);

constexpr const char *kTenfold = "ten times the text: 10 is linear";

const SideBySide g_pairs[] = {
    {"KeySearch", "KeySearchStrcasestr", "both look for a key that is not there, ignoring case"},
    {"XmlValue", "XmlValueLibxml2", "one value of a reply; the peer checks the whole document"},
    {"StripHtml/100000", "StripHtml/10000", kTenfold},
    {"StripHtml/1000000", "StripHtml/100000", kTenfold},
    {"ReplaceStr/shorter/100000", "ReplaceStr/shorter/10000", kTenfold},
    {"ReplaceStr/longer/100000", "ReplaceStr/longer/10000", kTenfold}};

}  // namespace
