// What keeps cameras from working on this machine, each finding with the command that mends it.
#pragma once
#include <filesystem>
#include <string>
#include <vector>

namespace kovtools {

struct Finding {
    enum class Severity { Good, Note, Problem };
    Severity severity = Severity::Good;
    std::string check;    // what was looked at: "rule", "bus", "driver", "node", "holder", "link", "open", "memory", "settings"
    std::string text;     // for people, may have several lines
    std::string command;  // what to do, a command where there is one; empty where all is well
};
const char* SeverityText(Finding::Severity severity);  // "ok", "note", "PROBLEM"

// A USB 3 camera on a link of so many Mbit/s (0: not known).
Finding SlowLink(const std::string& camera, int speed = 0);

struct Examination {
    // The system to look at; other than / only files are looked at, and no camera is opened.
    std::filesystem::path root = "/";
    // Opens each camera for a moment. A program that holds cameras itself leaves them out; nothing is enumerated then.
    bool openCameras = true;
};
// Never throws for what it finds. Not while another thread enumerates, opens or closes cameras.
std::vector<Finding> Examine(const Examination& examination = {});

// System, limits, and the devices of our vendor with their descriptors, as lines of text for somebody far away.
std::string DescribeSystem();

}  // namespace kovtools
