// Files of packets made one by one, for questions about them.
#pragma once

#include "foundation/Logger.h"
#include "ts_maker.h"

#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <sys/stat.h>
#include <vector>

inline constexpr int VIDEO = 0x100;

struct Close {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, Close>;

class Queries : public testing::Test {
protected:
    // One GOP of one picture; the PES header is 14 or 19 bytes.
    void gop(int rateCode = 3, int profileAndLevel = 0x48, int width = 720, int height = 576,
             std::int64_t pts = 3600, std::int64_t dts = -1) {
        maker.pes(VIDEO, pesHeader(pts, dts),
                  sequenceHeader(width, height, rateCode) + sequenceExtension(profileAndLevel) +
                      gopHeader(0, 0, 0, 0) + pictureHeader() + filler(500));
    }
    void gops(int count, int rateCode = 3, int profileAndLevel = 0x48) {
        maker.tables({{0x02, VIDEO}});
        for (int i = 0; i < count; ++i)
            gop(rateCode, profileAndLevel);
    }
    std::string write(const char* name = "in.ts") const { return maker.write(directory, name); }

    // What must never be misread, whatever is asked.
    std::vector<std::string> hostileFiles() const {
        std::vector<std::string> paths{directory.path("missing.ts"), directory.path(""),
                                       directory.file("empty.ts", ""),
                                       directory.file("short.ts", std::string(187, 'G'))};
        const std::string fifo = directory.path("fifo");
        mkfifo(fifo.c_str(), 0600);
        paths.push_back(fifo);
        std::mt19937 random(6);
        std::string noise(188 * 300, '\0');
        for (char& c : noise)
            c = static_cast<char>(random());
        paths.push_back(directory.file("noise.ts", noise));
        // Tables and video whose every other byte is wild.
        std::string wild(maker.bytes.begin(), maker.bytes.end());
        for (int round = 0; round < 20; ++round) {
            for (int i = 0; i < 400 && !wild.empty(); ++i) {
                const std::size_t at = random() % wild.size();
                if (at % 188 > 3)
                    wild[at] = static_cast<char>(random());
            }
            paths.push_back(directory.file("wild" + std::to_string(round) + ".ts", wild));
        }
        return paths;
    }

    ScratchDir directory;
    TsMaker maker;
};
