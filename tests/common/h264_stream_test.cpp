// Streams of real encoders. What the parsers read is compared with ffmpeg's header trace and with
// ffprobe.

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/h264.h"
#include "h264_bits.h"
#include "support/command.h"
#include "support/private_world.h"
#include "support/temp_dir.h"

namespace {

using namespace talvek::test;
using namespace talvek::test::h264;

constexpr uint8_t kSpsNal = 7;
constexpr uint8_t kPpsNal = 8;

// ---- Encoding ----

// Moving stripes, so that pictures differ but can be predicted from each other.
void WriteVideo(const std::string &path, size_t width, size_t height, size_t frames) {
    std::ofstream out{path, std::ios::binary};
    out << "YUV4MPEG2 W" << width << " H" << height << " F25:1 Ip A1:1 C420jpeg\n";
    for (size_t frame = 0; frame < frames; ++frame) {
        out << "FRAME\n";
        for (size_t y = 0; y < height; ++y) {
            for (size_t x = 0; x < width; ++x) {
                out << static_cast<char>((x + 2 * frame) / 5 * 23 + y / 7 * 31);
            }
        }
        for (size_t i = 0; i < width / 2 * (height / 2) * 2; ++i) {
            out << static_cast<char>(128 + (i + frame) % 16);
        }
    }
}

struct Encoding {
    const char *name;
    const char *command;  // reads $in, writes $out
    size_t width = 64;
    size_t height = 48;
    size_t frames = 6;
    uint32_t profile = 100;
    const char *classes = "IP";  // classes of slice that the stream must have
};

#define X264 "x264 --quiet --no-progress --threads 1 --b-adapt 0 "
#define TO_OUT " -o $out $in"

// NAL units of a stream in Annex B form, with their header bytes and without start codes.
std::vector<Bytes> SplitUnits(const std::string &stream) {
    std::vector<Bytes> units;
    const std::string code{"\0\0\1", 3};
    for (size_t at = stream.find(code); at != std::string::npos;) {
        const size_t begin = at + 3;
        at = stream.find(code, begin);
        size_t end = at == std::string::npos ? stream.size() : at;
        while (end > begin && stream[end - 1] == 0) {
            --end;
        }
        units.emplace_back(stream.begin() + static_cast<ptrdiff_t>(begin),
                           stream.begin() + static_cast<ptrdiff_t>(end));
    }
    return units;
}

uint8_t TypeOf(const Bytes &unit) {
    return unit[0] & 31;
}

bool IsSlice(const Bytes &unit) {
    return TypeOf(unit) == 1 || TypeOf(unit) == 5;
}

// ---- What ffmpeg reports ----

// The fields of one unit by name, and the place of each in bits from the header byte on.
struct Header {
    std::string title;
    std::map<std::string, int64_t> values;
    std::map<std::string, uint32_t> places;
    std::vector<std::pair<std::string, int64_t>> order;

    [[nodiscard]] uint32_t Get(const std::string &name) const {
        const auto found = values.find(name);
        return found == values.end() ? 0 : static_cast<uint32_t>(found->second);
    }
};

// The packets in the order of the stream, without the copy of the first sets before them.
std::vector<Header> Trace(const std::string &path) {
    const std::string text =
        RunCommand("ffmpeg -hide_banner -nostdin -threads 1 -loglevel trace -f h264 -i " + path +
                   " -c copy -bsf:v trace_headers -f null - 2>&1 | grep -a trace_headers || true");
    std::vector<Header> headers;
    bool packets = false;
    std::istringstream in{text};
    // "[trace_headers @ 0x55...] 24          level_idc               00001010 = 10"
    static const std::regex field{"([0-9]+) +([a-z0-9_\\[\\]]+) +[01]+ = (-?[0-9]+)"};
    for (std::string line; std::getline(in, line);) {
        line = line.substr(std::min(line.size(), line.find("] ") + 2));
        std::smatch match;
        if (line.rfind("Packet", 0) == 0) {
            packets = true;
        } else if (!packets || line.empty()) {
            continue;
        } else if (std::regex_match(line, match, field)) {
            if (headers.empty()) {
                ADD_FAILURE() << "a field without a header: " << line;
                return headers;
            }
            Header &header = headers.back();
            const int64_t value = std::stoll(match[3]);
            header.values.emplace(match[2], value);
            header.places.emplace(match[2], static_cast<uint32_t>(std::stoul(match[1])));
            header.order.emplace_back(match[2], value);
        } else if (line.rfind("nal_unit_type", 0) != 0) {
            headers.push_back({line, {}, {}, {}});
        }
    }
    return headers;
}

std::vector<Header> WithTitle(const std::vector<Header> &headers, const std::string &title) {
    std::vector<Header> some;
    std::copy_if(headers.begin(), headers.end(), std::back_inserter(some),
                 [&](const Header &header) { return header.title == title; });
    return some;
}

struct Probed {
    std::map<std::string, std::string> stream;
    std::string pictures;  // the types in the order of the stream: "IPBB"
};

Probed Probe(const std::string &path) {
    std::istringstream in{
        RunCommand("ffprobe -v error -threads 1 -f h264 -show_entries "
                   "stream=profile,level,width,height,pix_fmt,refs,bits_per_raw_sample:"
                   "frame=pict_type,coded_picture_number -of compact=p=0 " +
                   path)};
    Probed probed;
    std::map<int, std::string> types;
    // "pict_type=B|coded_picture_number=2" and "profile=High|width=64|..."
    for (std::string line; std::getline(in, line);) {
        std::map<std::string, std::string> values;
        std::istringstream fields{line};
        for (std::string field; std::getline(fields, field, '|');) {
            const size_t equals = std::min(field.find('='), field.size() - 1);
            values[field.substr(0, equals)] = field.substr(equals + 1);
        }
        if (values.count("pict_type") == 1) {
            types[std::stoi(values["coded_picture_number"])] = values["pict_type"];
        } else if (values.count("profile") == 1) {
            probed.stream = values;
        }
    }
    for (const auto &[number, type] : types) {
        probed.pictures += type;
    }
    return probed;
}

// ---- Comparing ----

tH264SpsInfo ParseUnit(const Bytes &unit, int expected = 0) {
    const Bytes set{unit.begin() + 1, unit.end()};
    const Guarded bytes{Padded(set, COM_H264_SPS_REACH)};
    tH264SpsInfo info;
    EXPECT_EQ(expected, COM_H264ParseSps(bytes.get(), &info));
    return info;
}

void ExpectSameSet(const Header &header, const tH264SpsInfo &info) {
    EXPECT_EQ(header.Get("profile_idc"), info.profile_idc);
    EXPECT_EQ(header.Get("level_idc"), info.level_idc);
    EXPECT_EQ(header.Get("seq_parameter_set_id"), info.sps_id);
    EXPECT_EQ(header.Get("chroma_format_idc"), info.chroma_format_idc);
    EXPECT_EQ(header.Get("bit_depth_luma_minus8"), info.bit_depth_luma_minus8);
    EXPECT_EQ(header.Get("bit_depth_chroma_minus8"), info.bit_depth_chroma_minus8);
    EXPECT_EQ(header.Get("qpprime_y_zero_transform_bypass_flag"),
              info.qpprime_y_zero_transform_bypass);
    EXPECT_EQ(header.Get("seq_scaling_matrix_present_flag"), info.scaling_matrix_present);
    EXPECT_EQ(uint32_t{16} << header.Get("log2_max_frame_num_minus4"), info.max_frame_num);
    EXPECT_EQ(header.Get("max_num_ref_frames"), info.max_num_ref_frames);
    EXPECT_EQ(header.Get("pic_width_in_mbs_minus1"), info.width_in_mbs_minus1);
    EXPECT_EQ(header.Get("pic_height_in_map_units_minus1"), info.height_in_map_units_minus1);
}

// The slice types of table 7-6; 5 to 9 are the same classes as 0 to 4.
int ClassOf(uint32_t sliceType) {
    switch (sliceType % 5) {
        case 0:
        case 3:
            return COM_H264_SLICE_P;
        case 1:
            return COM_H264_SLICE_B;
        default:
            return COM_H264_SLICE_I;
    }
}

// Returns the class that the parser found.
int ExpectSameSlice(const Header &header, const Bytes &unit, const tH264SpsInfo &sps) {
    Bytes slice{unit.begin() + 1, unit.end()};
    slice.resize(std::min<size_t>(slice.size(), COM_H264_SLICE_REACH));
    const Guarded bytes{Padded(slice, COM_H264_SLICE_REACH)};
    tH264SliceInfo info;
    memset(&info, 0xA5, sizeof info);
    const int found = COM_H264ParseSliceHeader(bytes.get(), &sps, &info);
    EXPECT_EQ(ClassOf(header.Get("slice_type")), found);
    EXPECT_EQ(header.Get("first_mb_in_slice"), info.first_mb_in_slice);
    EXPECT_EQ(header.Get("slice_type"), info.slice_type);
    EXPECT_EQ(header.Get("pic_parameter_set_id"), info.pic_parameter_set_id);
    EXPECT_EQ(header.Get("frame_num"), info.frame_num);
    EXPECT_EQ(0U, info.offset);
    return found;
}

const char *ProfileName(uint32_t profile) {
    switch (profile) {
        case 66:
            return "Constrained Baseline";
        case 77:
            return "Main";
        case 100:
            return "High";
        case 110:
            return "High 10";
        case 122:
            return "High 4:2:2";
        default:
            return "";
    }
}

class H264Stream : public ::testing::Test {
  protected:
    void SetUp() override {
        if (system("command -v x264 ffmpeg ffprobe > /dev/null 2>&1 || exit 1") != 0) {
            GTEST_SKIP() << "x264 or ffmpeg is not installed (packages.txt)";
        }
    }

    // The path of the stream.
    [[nodiscard]] std::string Encode(const Encoding &e) const {
        const std::string in = dir_ / "in.y4m";
        const std::string out = dir_ / "out.264";
        WriteVideo(in, e.width, e.height, e.frames);
        RunCommand("in=" + in + " out=" + out + "; " + e.command);
        return out;
    }

    void Compare(const Encoding &e) const;

    const TempDir dir_;
};

void H264Stream::Compare(const Encoding &e) const {
    SCOPED_TRACE(e.name);
    const std::string path = Encode(e);
    const std::vector<Bytes> units = SplitUnits(ReadFile(path));
    const std::vector<Header> trace = Trace(path);
    const std::vector<Header> sets = WithTitle(trace, "Sequence Parameter Set");
    const std::vector<Header> slices = WithTitle(trace, "Slice Header");
    size_t set = 0;
    size_t slice = 0;
    tH264SpsInfo sps = {};
    std::string pictures;
    std::set<int> classes;
    for (const Bytes &unit : units) {
        if (TypeOf(unit) == kSpsNal) {
            ASSERT_LT(set, sets.size());
            sps = ParseUnit(unit);
            ExpectSameSet(sets[set++], sps);
        } else if (IsSlice(unit)) {
            ASSERT_LT(slice, slices.size());
            const Header &header = slices[slice++];
            const int found = ExpectSameSlice(header, unit, sps);
            classes.insert(found);
            if (header.Get("first_mb_in_slice") == 0) {
                pictures += "?IPB"[found];
            }
        }
    }
    EXPECT_EQ(sets.size(), set);
    EXPECT_EQ(slices.size(), slice);
    EXPECT_LE(1U, set);
    EXPECT_EQ(e.profile, sps.profile_idc);
    for (const char *pClass = e.classes; *pClass != 0; ++pClass) {
        EXPECT_EQ(1U, classes.count(static_cast<int>(strchr("?IPB", *pClass) - "?IPB"))) << *pClass;
    }

    Probed probed = Probe(path);
    EXPECT_EQ(probed.pictures, pictures);
    EXPECT_EQ(e.frames, pictures.size());
    std::map<std::string, std::string> &probe = probed.stream;
    EXPECT_EQ(ProfileName(sps.profile_idc),
              probe["profile"].substr(0, probe["profile"].find(" Intra")));
    EXPECT_EQ(std::to_string(sps.level_idc), probe["level"]);
    EXPECT_EQ(std::to_string(sps.max_num_ref_frames), probe["refs"]);
    EXPECT_EQ(std::to_string(e.width), probe["width"]);
    EXPECT_EQ(std::to_string(e.height), probe["height"]);
    EXPECT_EQ((e.width + 15) / 16 - 1, sps.width_in_mbs_minus1);
    const bool frames = sets[0].Get("frame_mbs_only_flag") == 1;
    EXPECT_EQ(frames ? (e.height + 15) / 16 - 1 : (e.height + 31) / 32 - 1,
              sps.height_in_map_units_minus1);
    if (sps.profile_idc >= 100) {
        EXPECT_EQ(std::to_string(8 + sps.bit_depth_luma_minus8), probe["bits_per_raw_sample"]);
        EXPECT_EQ(sps.chroma_format_idc == 2, probe["pix_fmt"].find("422") != std::string::npos);
    }
}

TEST_F(H264Stream, AgreesWithFfmpegOnEveryProfile) {
    const Encoding encodings[] = {
        {"Baseline", X264 "--profile baseline" TO_OUT, 64, 48, 6, 66},
        {"Main", X264 "--profile main --bframes 2" TO_OUT, 64, 48, 8, 77, "IPB"},
        {"High", X264 "--profile high --bframes 3 --b-pyramid normal" TO_OUT, 64, 48, 10, 100,
         "IPB"},
        {"High 10", X264 "--profile high10 --output-depth 10 --bframes 1" TO_OUT, 64, 48, 6, 110,
         "IPB"},
        {"High 10 Intra", X264 "--profile high10 --output-depth 10 --keyint 1" TO_OUT, 64, 48, 3,
         110, "I"},
        {"High 4:2:2", X264 "--profile high422 --output-csp i422 --bframes 1" TO_OUT, 64, 48, 6,
         122, "IPB"},
        {"High 4:2:2 of 10 bits",
         X264 "--profile high422 --output-csp i422 --output-depth 10" TO_OUT, 64, 48, 4, 122},
    };
    for (const Encoding &e : encodings) {
        Compare(e);
    }
}

TEST_F(H264Stream, AgreesWithFfmpegOnOddSizes) {
    const size_t sizes[][2] = {{66, 50}, {18, 34}, {1928, 16}};
    for (const auto &size : sizes) {
        Compare({"odd size", X264 "--profile high --bframes 0" TO_OUT, size[0], size[1], 3});
    }
}

TEST_F(H264Stream, AgreesWithFfmpegOnManySlicesAndReferences) {
    const Encoding encodings[] = {
        {"four slices", X264 "--profile main --bframes 1 --slices 4" TO_OUT, 64, 96, 5, 77, "IPB"},
        {"a slice for each macroblock", X264 "--profile baseline --slice-max-mbs 1" TO_OUT, 64, 48,
         3, 66},
        {"eight references",
         X264 "--profile high --ref 8 --bframes 2 --keyint 20 --no-scenecut" TO_OUT, 64, 48, 12,
         100, "IPB"},
        {"sixteen references", X264 "--profile baseline --ref 16" TO_OUT, 64, 48, 20, 66},
    };
    for (const Encoding &e : encodings) {
        Compare(e);
    }
}

TEST_F(H264Stream, AgreesWithFfmpegOnOtherSettings) {
    const Encoding encodings[] = {
        {"number of the sets", X264 "--profile main --sps-id 9 --bframes 1" TO_OUT, 64, 48, 4, 77,
         "IPB"},
        {"interlaced", X264 "--profile high --tff --bframes 1" TO_OUT, 64, 64, 6, 100, "IPB"},
        {"frame_num comes round", X264 "--profile baseline --keyint infinite --ref 1" TO_OUT, 64,
         48, 40, 66},
        {"delimiters and buffering",
         X264 "--profile high --aud --nal-hrd vbr --vbv-maxrate 100 --vbv-bufsize 100 --bframes 1 "
              "--keyint 3" TO_OUT,
         64, 48, 8, 100, "IPB"},
        {"lists of the picture sets", X264 "--profile high --cqm jvt --bframes 1" TO_OUT, 64, 48, 4,
         100, "IPB"},
        {"ffmpeg's own call of the encoder",
         "ffmpeg -nostdin -v error -y -i $in -c:v libx264 -profile:v main -bf 2 -g 5 -refs 3 "
         "-x264-params b-adapt=0:threads=1 -f h264 $out",
         64, 48, 9, 77, "IPB"},
    };
    for (const Encoding &e : encodings) {
        Compare(e);
    }
}

// x264 writes its lists to the picture parameter set, where a list has the same syntax.
TEST_F(H264Stream, YieldsTheScalingListsGivenToTheEncoder) {
    std::string lists[2];
    std::vector<uint32_t> expected[2];
    for (size_t which = 0; which < 2; ++which) {
        for (uint32_t i = 0; i < (which == 0 ? 16U : 64U); ++i) {
            const uint32_t value = 10 + i * 37 % 90;
            expected[which].push_back(value);
            lists[which] += (i == 0 ? "" : ",") + std::to_string(value);
        }
    }
    const std::string command =
        X264 "--profile high --cqm4 " + lists[0] + " --cqm8 " + lists[1] + TO_OUT;
    const std::string path = Encode({"lists", command.c_str()});
    const std::vector<Header> sets = WithTitle(Trace(path), "Picture Parameter Set");
    ASSERT_FALSE(sets.empty());
    size_t compared = 0;
    for (const Bytes &unit : SplitUnits(ReadFile(path))) {
        if (TypeOf(unit) != kPpsNal) {
            continue;
        }
        const Guarded bytes{Bytes{unit.begin() + 1, unit.end()}};
        tH264BitReader reader;
        COM_H264InitBitReader(&reader, bytes.get(), bytes.size());
        COM_H264SkipBits(&reader, sets[0].places.at("pic_scaling_list_present_flag[0]") - 8);
        for (int i = 0; i < 8; ++i) {
            const bool present = reader.cache << reader.consumed >> 31 == 1;
            EXPECT_EQ(sets[0].Get("pic_scaling_list_present_flag[" + std::to_string(i) + "]"),
                      present ? 1U : 0U);
            COM_H264SkipBits(&reader, 1);
            if (present) {
                const size_t which = i < 6 ? 0 : 1;
                std::vector<uint32_t> list(expected[which].size());
                uint32_t useDefault = 7;
                COM_H264ParseScalingList(list.data(), static_cast<int>(list.size()), &useDefault,
                                         &reader);
                EXPECT_EQ(0U, useDefault);
                EXPECT_EQ(expected[which], list) << i;
                ++compared;
            }
        }
        EXPECT_EQ(sets[0].Get("second_chroma_qp_index_offset"),
                  static_cast<uint32_t>(COM_H264ReadSe(&reader)));
    }
    EXPECT_LE(4U, compared);
}

// ---- Sets that no available encoder writes: made by hand, compared with ffmpeg's trace ----

class H264MadeSet : public H264Stream {
  protected:
    void SetUp() override {
        H264Stream::SetUp();
        if (!IsSkipped()) {
            rest_ = ReadFile(Encode({"rest", X264 "--profile high" TO_OUT, 64, 48, 1}));
        }
    }

    // The trace of a set that is inserted before the stream of an encoder.
    [[nodiscard]] Header TraceOf(const Sps &sps) const {
        const Bytes set = Escape(Pack(sps.Bits()));
        const std::string start{"\0\0\0\1\x67", 5};
        WriteFile(dir_ / "made.264", start + std::string(set.begin(), set.end()) + rest_);
        const std::vector<Header> sets =
            WithTitle(Trace(dir_ / "made.264"), "Sequence Parameter Set");
        EXPECT_LE(1U, sets.size());
        return sets.empty() ? Header{} : sets[0];
    }
    static tH264SpsInfo ParseMade(const Sps &sps, int expected = 0) {
        Bytes unit = Escape(Pack(sps.Bits()));
        unit.insert(unit.begin(), 0x67);
        return ParseUnit(unit, expected);
    }

    std::string rest_;
};

// The lists that the differences in the trace encode.
struct Lists {
    std::vector<uint32_t> values[12];
    bool useDefault[12] = {};
};

Lists ListsOf(const Header &header) {
    Lists lists;
    size_t which = 12;
    int64_t last = 8;
    bool ended = false;
    for (const auto &[name, value] : header.order) {
        if (name.rfind("seq_scaling_list_present_flag", 0) == 0) {
            which = std::stoul(name.substr(name.find('[') + 1));
            last = 8;
            ended = value == 0;
        } else if (name.rfind("delta_scale", 0) == 0 && !ended) {
            const int64_t next = (last + value + 256) % 256;
            if (next == 0) {
                lists.useDefault[which] = lists.values[which].empty();
                ended = true;
                const size_t size = which < 6 ? 16 : 64;
                lists.values[which].resize(size, static_cast<uint32_t>(last));
            } else {
                lists.values[which].push_back(static_cast<uint32_t>(next));
                last = next;
            }
        }
    }
    return lists;
}

TEST_F(H264MadeSet, AgreesWithFfmpegOnScalingLists) {
    for (const uint32_t profile : {100U, 110U, 122U}) {
        Sps sps;
        sps.profile = profile;
        sps.constraints = 0;
        sps.high = true;
        sps.chroma = profile == 122 ? 2 : 1;
        sps.lumaDepth = profile == 100 ? 0 : 2;
        sps.chromaDepth = sps.lumaDepth;
        for (uint32_t i = 0; i < 8; ++i) {
            std::vector<uint32_t> list;
            for (uint32_t j = 0; j < (i < 6 ? 16U : 64U); ++j) {
                list.push_back(1 + (i * 41 + j * j * 7) % 255);
            }
            if (i % 3 == 1) {
                list.resize(9 + i);
                list.push_back(0);  // the rest repeats the last value
            }
            sps.lists.push_back("1" + Deltas(list));
        }
        sps.lists[2] = "0";
        sps.lists[5] = "1" + Se(-8);  // the default list
        sps.log2MaxFrameNum = 12;
        const Header header = TraceOf(sps);
        const tH264SpsInfo info = ParseMade(sps);
        ExpectSameSet(header, info);
        EXPECT_EQ(1U, info.scaling_matrix_present);
        const Lists lists = ListsOf(header);
        for (size_t i = 0; i < 8; ++i) {
            const uint32_t *pList = i < 6 ? info.scaling_list_4x4[i] : info.scaling_list_8x8[i - 6];
            const std::vector<size_t> order = Zigzag(i < 6 ? 4 : 8);
            EXPECT_EQ(i == 2, lists.values[i].empty());
            for (size_t j = 0; j < lists.values[i].size(); ++j) {
                EXPECT_EQ(lists.values[i][j], pList[order[j]]) << i << ", " << j;
            }
            EXPECT_EQ(lists.useDefault[i],
                      1 == (i < 6 ? info.use_default_4x4[i] : info.use_default_8x8[i - 6]));
        }
        EXPECT_EQ(1U, info.use_default_4x4[5]);
    }
}

// The cycle contains emulation-prevention bytes.
TEST_F(H264MadeSet, AgreesWithFfmpegOnEveryPictureOrderType) {
    std::vector<Sps> sets(5);
    sets[0].pictureOrder = Ue(0) + Ue(12);
    sets[1].pictureOrder = Ue(1) + "1" + Se(-5) + Se(70000) + Ue(0);
    sets[2].pictureOrder = Ue(1) + "0" + Se(0) + Se(0) + Ue(255);
    for (int i = 0; i < 255; ++i) {
        sets[2].pictureOrder += Se(i % 2 == 0 ? 65536 : -32768);
    }
    sets[3].pictureOrder = Ue(2);
    sets[4].profile = 77;
    sets[4].constraints = 0;
    sets[4].width = 511;
    sets[4].height = 255;
    sets[4].refs = 16;
    sets[4].log2MaxFrameNum = 11;
    const Bytes cycle = Pack(sets[2].Bits());
    ASSERT_LT(cycle.size(), Escape(cycle).size());
    for (const Sps &sps : sets) {
        const Header header = TraceOf(sps);
        const tH264SpsInfo info = ParseMade(sps);
        ExpectSameSet(header, info);
        EXPECT_EQ(sps.width, info.width_in_mbs_minus1);
        EXPECT_EQ(sps.height, info.height_in_map_units_minus1);
    }
}

// ---- What the parser does not support ----

// A set of 4:4:4 Predictive (244) is read like one of Main: chroma_format_idc is read as
// log2_max_frame_num_minus4, and so on.
TEST_F(H264Stream, ReadsProfile244LikeMainProfile) {
    const Encoding encodings[] = {
        {"4:4:4", X264 "--profile high444 --output-csp i444" TO_OUT, 64, 48, 2},
        {"lossless", X264 "--profile high444 --qp 0" TO_OUT, 64, 48, 2},
    };
    for (const Encoding &e : encodings) {
        SCOPED_TRACE(e.name);
        const std::string path = Encode(e);
        const std::vector<Header> sets = WithTitle(Trace(path), "Sequence Parameter Set");
        ASSERT_FALSE(sets.empty());
        for (const Bytes &unit : SplitUnits(ReadFile(path))) {
            if (TypeOf(unit) == kSpsNal) {
                const tH264SpsInfo info = ParseUnit(unit);
                EXPECT_EQ(244U, info.profile_idc);
                EXPECT_EQ(sets[0].Get("level_idc"), info.level_idc);
                EXPECT_EQ(0U, info.chroma_format_idc);
                EXPECT_EQ(uint32_t{16} << sets[0].Get("chroma_format_idc"), info.max_frame_num);
                EXPECT_NE(sets[0].Get("pic_width_in_mbs_minus1"), info.width_in_mbs_minus1);
            }
        }
    }
}

// separate_colour_plane_flag follows the chroma format of 4:4:4 and is read as the first bit of the
// depth.
TEST_F(H264MadeSet, Reads444WithoutThePlaneFlag) {
    for (const char flag : {'0', '1'}) {
        Sps sps;
        sps.profile = 122;
        sps.constraints = 0;
        sps.high = true;
        sps.chroma = 3;
        // Ue(3) + flag + depth 0: the flag is inserted before the depth.
        std::string bits = sps.Bits();
        const size_t after = 24 + Ue(0).size() + Ue(3).size();
        bits.insert(after, 1, flag);
        Bytes unit = Escape(Pack(bits));
        unit.insert(unit.begin(), 0x67);
        const std::string start{"\0\0\0\1", 4};
        WriteFile(dir_ / "made.264", start + std::string(unit.begin(), unit.end()) + rest_);
        const std::vector<Header> sets =
            WithTitle(Trace(dir_ / "made.264"), "Sequence Parameter Set");
        ASSERT_FALSE(sets.empty());
        EXPECT_EQ(flag == '1' ? 1U : 0U, sets[0].Get("separate_colour_plane_flag"));
        EXPECT_EQ(3U, sets[0].Get("pic_width_in_mbs_minus1"));
        EXPECT_EQ(0U, sets[0].Get("bit_depth_luma_minus8"));

        const Bytes set{unit.begin() + 1, unit.end()};
        const Guarded bytes{Padded(set, COM_H264_SPS_REACH)};
        tH264SpsInfo info;
        COM_H264ParseSps(bytes.get(), &info);
        EXPECT_EQ(3U, info.chroma_format_idc);
        // 0 11... is the code of 2; 1 1... are the codes of 0 and 0.
        EXPECT_EQ(flag == '1' ? 0U : 2U, info.bit_depth_luma_minus8);
    }
}

// The scalable and multiview profiles have the High fields too, but are read like Main.
TEST_F(H264MadeSet, ReadsOtherHighProfilesLikeMainProfile) {
    for (const uint32_t profile : {44U, 83U, 86U, 118U, 128U, 138U, 244U}) {
        Sps sps;
        sps.profile = profile;
        sps.constraints = 0;
        sps.high = true;
        sps.chroma = 1;
        const Header header = TraceOf(sps);
        EXPECT_EQ(profile, header.Get("profile_idc"));
        EXPECT_EQ(1U, header.Get("chroma_format_idc"));
        EXPECT_EQ(3U, header.Get("pic_width_in_mbs_minus1"));
        const tH264SpsInfo info = ParseMade(sps);
        EXPECT_EQ(0U, info.chroma_format_idc);
        EXPECT_EQ(uint32_t{16} << 1, info.max_frame_num) << profile;
        EXPECT_NE(3U, info.width_in_mbs_minus1) << profile;
    }
}

}  // namespace
