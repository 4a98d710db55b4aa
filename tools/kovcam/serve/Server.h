// The HTTP side of `kovcam serve`: the page with its own interface, and Alpaca, on one port.
//
//   GET  /                              the page (page/index.html, page.css, page.js)
//   GET  /api/cameras                   all cameras: name, sensor, state
//   GET  /api/cameras/N/state           everything about one
//   GET  /api/cameras/N/events          the same as server-sent events, whenever something changes
//   GET  /api/cameras/N/picture.jpg     the next frame after ?after=, or 204 when none comes within 5 s; a part
//                                       (?x=&y=&w=&h=, pixels of the frame), at most ?out= pixels wide, stretched
//                                       (?stretch=auto or black,white,middle)
//   GET  /api/cameras/N/live.mjpg       the same as an endless stream, for other programs
//   GET  /api/cameras/N/frame.fits      the newest frame as a file; also .tiff and .png
//   PUT  /api/cameras/N/ACTION          JSON in, 200 or {"error": "why"}; see Actions in Server.cpp
//   GET  /api/captures[/NAME[/thumb]]   what was taken since the start
//   GET  /api/doctor                    what is wrong, with the command that mends it
//   GET  /api/v1/..., /management, /setup   Alpaca
#pragma once
#include <filesystem>
#include <functional>
#include <string>

namespace kovserve {

struct ServerOptions {
    std::string listen = "127.0.0.1";
    int port = 11111;
    int discoveryPort = 32227;  // 0: none
    std::string hostName;       // a name by which browsers may call this server, beside its addresses
    std::filesystem::path folder = ".";
    std::string version;
};

// Serves until `stop` tells true. Throws std::runtime_error when the port cannot be had.
void Serve(const ServerOptions& options, const std::function<bool()>& stop);

}  // namespace kovserve
