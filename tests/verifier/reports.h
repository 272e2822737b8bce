// Reports as a verifier writes them, made piece by piece.
#pragma once

#include "foundation/ScratchDir.h"

#include <string>
#include <vector>

// One audio stream of a report; an empty text leaves the element out.
struct Audio {
    std::string pid = "482";
    std::string type = "AC3 audio";
    std::string mode = "2/0";
    std::string bitrate = "192000";
    std::string rate = "48000";
    std::string frequency = ""; // the older element for the sampling rate
    std::string channels = "2";
};

// A report whose file meets the specification, unless a test changes it. Empty texts leave elements out.
struct Report {
    std::string pmtPid = "480";
    std::string pcrPid = "481";
    std::string videoPid = "481";
    std::string videoType = "MPEG-2 Video";
    std::string resolution = "528x480";
    std::string aspect = "4:3";
    std::string frameRate = "29.97";
    std::string videoRate = "3000000";
    std::string gopSize = "15";
    std::vector<std::string> gopStructures = {"IBBP"};
    std::string aligned = "true";
    std::string cbr = "true";
    std::string captions = "true";
    std::string dropFrame = "true";
    std::vector<Audio> audios = {Audio{}};
    std::string duration = "00:30:00:00";
    std::string muxRate = "3750000";

    [[nodiscard]] std::string xml() const {
        std::string text = "<?xml version=\"1.0\"?>\n<Report><Media><SystemInformation><PMTTable>";
        text += value("Pid", pmtPid) + value("PcrPid", pcrPid) + "<Elements>";
        text += stream(videoPid, videoType);
        for (const Audio& audio : audios)
            text += stream(audio.pid, audio.type);
        text += "</Elements></PMTTable></SystemInformation><VideoStream>";
        text += value("Pid", videoPid) + value("VideoResolution", resolution) + value("AspectRatio", aspect) +
                value("FrameRate", frameRate) + value("ElementaryBitrate", videoRate) +
                value("GopSize", gopSize);
        for (const std::string& structure : gopStructures)
            text += value("GopStructure", structure);
        text += value("QuadByteAligned", aligned) + value("ConstantBitrate", cbr) +
                value("ClosedCaptions", captions) + value("DropFrame", dropFrame) + "</VideoStream>";
        for (const Audio& audio : audios)
            text += "<AudioStream>" + value("Pid", audio.pid) + value("AudioMode", audio.mode) +
                    value("AudioBitrate", audio.bitrate) + value("SamplingRate", audio.rate) +
                    value("SamplingFrequency", audio.frequency) + value("NumberOfChannels", audio.channels) +
                    "</AudioStream>";
        return text + "</Media><MediaSummary>" + value("AssetDuration", duration) +
               value("MuxBitrate", muxRate) + "</MediaSummary></Report>\n";
    }

private:
    static std::string value(const std::string& name, const std::string& text) {
        return text.empty() ? "" : "<" + name + " value=\"" + text + "\"/>";
    }
    static std::string stream(const std::string& pid, const std::string& type) {
        return pid.empty() ? ""
                           : "<Stream>" + value("Pid", pid) +
                                 (type.empty() ? "" : "<StreamType Desc=\"" + type + "\"/>") + "</Stream>";
    }
};
