#include <memory>

#include "kovcam/Camera.h"
#include "kovcam/Commands.h"

namespace kovcam {

void AddServeCommand(CLI::App& app, decltype(&kovserve::Serve) serve)
{
    auto* p = app.add_subcommand("serve", "All cameras in a browser, and for clients that speak ASCOM Alpaca; Ctrl-C ends it");
    auto o = std::make_shared<kovserve::ServerOptions>();
    o->version = KOV_VERSION;
    auto folder = std::make_shared<std::string>(".");
    p->add_option("--listen", o->listen, "Address to listen at; 0.0.0.0 opens the cameras to the network")->capture_default_str();
    p->add_option("--port", o->port, "Port of page and Alpaca; 0 takes a free one")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    p->add_option("--discovery", o->discoveryPort, "UDP port on which Alpaca clients look for servers; 0 for none")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    p->add_option("--host", o->hostName, "A name by which browsers call this machine, beside its addresses and its own name");
    p->add_option("--folder", *folder, "Where pictures and recordings go")->check(CLI::ExistingDirectory)->capture_default_str();
    p->callback([o, folder, serve] {
        o->folder = *folder;
        serve(*o, [] { return Interrupted(); });
    });
}

}  // namespace kovcam
