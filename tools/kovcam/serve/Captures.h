// The files that exposures and recordings leave in the server's folder, and the list of them with thumbnails.
#pragma once
#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "kovcam/serve/Recording.h"

namespace httplib {
struct Response;
}

namespace kovserve {

struct CaptureOptions {
    std::string name = "capture";      // of the files; a running number is added where one exists
    std::string kind = "Light Frame";  // as FITS has it
    std::vector<std::string> formats;  // fits, tiff, png
};

class Captures {
public:
    explicit Captures(std::filesystem::path folder);
    void CheckOptions(const CaptureOptions& options) const;  // throws BadRequest
    // Throws std::runtime_error when a file cannot be written.
    void Save(const Frame& frame, const CaptureOptions& options, int shot);   // shot: number in a series, 0 outside of one
    std::string Encode(const Frame& frame, const std::string& format) const;  // the bytes of a file
    std::filesystem::path NewPath(const std::string& name, const std::string& extension) const;
    std::filesystem::path PathOf(const std::string& name) const;  // of a file in the folder; throws BadRequest
    std::unique_ptr<Recorder> OpenSer(const std::filesystem::path& path, const Frame& first);
    void AddDark(const std::filesystem::path& path, const std::string& text);  // one that has been made
    nlohmann::json List() const;
    std::shared_ptr<const std::string> Thumbnail(const std::string& name) const;
    void SendFile(const std::string& name, httplib::Response& response) const;
    uintmax_t FreeBytes() const;  // of the folder's disk
    uint64_t Version() const { return m_version.load(); }

private:
    struct Item {
        std::string name;
        Clock::time_point when;
        std::vector<std::string> files;
        std::shared_ptr<const std::string> thumbnail;
        std::string text;
    };
    void Add(Item item);

    const std::filesystem::path m_folder;
    mutable std::mutex m_mutex;
    std::vector<Item> m_items;
    std::atomic<uint64_t> m_version{ 1 };
};

}  // namespace kovserve
