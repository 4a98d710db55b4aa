#include "virtual/SimOptions.h"

#include <strings.h>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>

namespace kovsim {
namespace {

std::vector<std::string> Split(const std::string& text, char at)
{
    std::vector<std::string> out;
    size_t from = 0;
    for (size_t to; (to = text.find(at, from)) != std::string::npos; from = to + 1)
        out.push_back(text.substr(from, to - from));
    out.push_back(text.substr(from));
    return out;
}

bool Number(const std::string& text, double min, double max, double* out)
{
    char* end;
    *out = std::strtod(text.c_str(), &end);
    return !text.empty() && !*end && *out >= min && *out <= max;
}

const ModelFacts* FindModel(const std::string& token)
{
    int count;
    const ModelFacts* models = AllModels(&count);
    for (int i = 0; i < count; ++i)
        if (strcasecmp(models[i].sToken.c_str(), token.c_str()) == 0)
            return &models[i];
    return nullptr;
}

// Plain options: a number within limits and where it goes.
struct NumberOption {
    const char* szName;
    double dMin, dMax;
    void (*Set)(CameraSettings&, double);
};
constexpr double BIG = 1e12;
constexpr NumberOption g_Numbers[] = {
    { "seed", 0, 9e15, [](CameraSettings& s, double v) { s.uSeed = uint64_t(v); } },
    { "firmware", 0, 255, [](CameraSettings& s, double v) { s.iFirmware = int(v); } },
    { "noise", 0, 100, [](CameraSettings& s, double v) { s.dNoise = v; } },
    { "hot", 0, 1e6, [](CameraSettings& s, double v) { s.iHotPixels = int(v); } },
    { "ambient", -80, 80, [](CameraSettings& s, double v) { s.dAmbient = v; } },
    { "link", 0, BIG, [](CameraSettings& s, double v) { s.dLinkMBs = v; } },
};

}  // namespace

std::string SimHelp()
{
    int count;
    const ModelFacts* models = AllModels(&count);
    std::string out = "models:", line;
    for (int i = 0; i < count; ++i) {
        if (line.size() + models[i].sToken.size() > 96) {
            out += line + "\n       ";
            line.clear();
        }
        line += " " + models[i].sToken;
    }
    return out + line +
           "\noptions: scene=sky[:RA,DEC[,FOCAL]]|flat:N|colour:R,G,B|dark|pattern|FILE.png, rate=N (clock), usb2,\n"
           "         firmware=N, flash=FILE, serial=TEXT, seed=N, noise=N, hot=N, ambient=DEGREES, link=MB/s,\n"
           "         vanish=FRAMES";
}

bool ParseSimOptions(const std::string& text, SimOptions* options, std::string* error)
{
    const auto fail = [&](const std::string& what) {
        if (error)
            *error = what + "\n" + SimHelp();
        return false;
    };
    const auto parts = Split(text, ';');
    CameraSettings common;
    SimOptions result;
    std::string flash, serial;
    for (size_t i = 1; i < parts.size(); ++i) {
        if (parts[i].empty())
            continue;
        const size_t eq = parts[i].find('=');
        const std::string name = parts[i].substr(0, eq), value = eq == std::string::npos ? "" : parts[i].substr(eq + 1);
        double number = 0;
        if (name == "usb2" && eq == std::string::npos) {
            common.bUSB3Host = false;
        } else if (name == "scene") {
            std::string why;
            common.scene = Scene::Parse(value, &why);
            if (!common.scene)
                return fail(why);
        } else if (name == "flash" && !value.empty()) {
            flash = value;
        } else if (name == "serial" && !value.empty() && value.size() <= 60) {
            serial = value;
        } else if (name == "rate") {
            if (!Number(value, 0.001, 10000, &result.dRate))
                return fail("rate: a number from 0.001 to 10000 expected");
        } else if (name == "vanish") {
            if (!Number(value, 1, 1e9, &number))
                return fail("vanish: a number of frames from 1 on expected");
            result.uVanishAfter = uint32_t(number);
        } else {
            const NumberOption* known = nullptr;
            for (const NumberOption& o : g_Numbers)
                if (name == o.szName)
                    known = &o;
            if (!known)
                return fail("unknown option \"" + parts[i] + "\"");
            if (!Number(value, known->dMin, known->dMax, &number))
                return fail(std::string(name).append(": \"").append(value).append("\" is no number within its limits"));
            known->Set(common, number);
        }
    }
    const auto tokens = Split(parts[0], ',');
    for (size_t i = 0; i < tokens.size(); ++i) {
        const ModelFacts* model = FindModel(tokens[i]);
        if (!model)
            return fail("unknown model \"" + tokens[i] + "\"");
        CameraSettings s = common;
        s.wProductId = model->wProductId;
        // Cameras that are alike must still be told apart.
        const std::string suffix = tokens.size() > 1 ? "." + std::to_string(i + 1) : "";
        s.uSeed += i;
        if (!flash.empty())
            s.sFlashFile = flash + suffix;
        if (!serial.empty())
            s.sSerial = serial + suffix;
        result.cameras.push_back(std::move(s));
    }
    *options = std::move(result);
    return true;
}

void PlugAll(VirtualBus& bus, SimOptions options)
{
    for (CameraSettings& settings : options.cameras) {
        settings.onNoise = [](const ModelFacts& facts, const std::string& why) {
            std::fprintf(stderr, "KOVSIM: %s sends noise, its registers contradict each other: %s\n", facts.sToken.c_str(),
                         why.c_str());
        };
        settings.onSlow = [](const ModelFacts& facts, double rate, double asked) {
            std::fprintf(stderr,
                         "KOVSIM: this machine is too slow for %s: %.2g frames a second come, its registers ask for %.2g. "
                         "A smaller region, a longer exposure or a slower clock (rate=0.5) helps.\n",
                         facts.sToken.c_str(), rate, asked);
        };
        VirtualCamera& camera = bus.Plug(settings);
        const ModelFacts& facts = camera.Facts();
        const std::string warning =
            settings.scene ? settings.scene->Warning({ facts.iWidth, facts.iHeight, facts.dPixelUm }) : "";
        if (!warning.empty())
            std::fprintf(stderr, "KOVSIM: %s: %s\n", facts.sToken.c_str(), warning.c_str());
        if (options.uVanishAfter > 0)
            camera.Inject({ FaultKind::Vanish, VANISH_MS, options.uVanishAfter, 1 });
    }
}

}  // namespace kovsim
