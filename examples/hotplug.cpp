// Streams from a camera and lives through its being pulled out: hotplug FRAMES
//
// There is no message about plugs. A camera that has gone shows as time-outs; the program closes it, looks for cameras now
// and then, and opens it when it is back. The library itself lives through short breaks while capture runs.
#include <KOVCamera2.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

// An open camera that streams whole frames; closed when it goes out of scope.
class Stream {
public:
    explicit Stream(int id) : m_id(id), m_open(KOVOpenCamera(id) == KOV_SUCCESS)
    {
        int32_t width = 0, height = 0, bin = 0;
        IMG_TYPE type;
        m_open = m_open && KOVGetROIFormat(id, &width, &height, &bin, &type) == KOV_SUCCESS &&
                 KOVSetROIFormat(id, width, height, 1, IMG_RAW8) == KOV_SUCCESS &&
                 KOVSetControlValue(id, CTRL_EXPOSURE, 20000, KOV_FALSE) == KOV_SUCCESS &&
                 KOVStartVideoCapture(id) == KOV_SUCCESS;
        m_image.resize(static_cast<size_t>(width) * static_cast<size_t>(height));
    }
    ~Stream() { KOVCloseCamera(m_id); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    bool IsOpen() const { return m_open; }
    bool Next() { return KOVGetVideoData(m_id, m_image.data(), static_cast<int32_t>(m_image.size()), 1000) == KOV_SUCCESS; }

private:
    int m_id;
    bool m_open;
    std::vector<uint8_t> m_image;
};

// Index of the camera of that name; any camera for an empty name. Indices change with what is plugged in; names do not.
static int Find(std::string& name)
{
    const int count = KOVGetNumOfConnectedCameras();
    for (int id = 0; id < count; ++id) {
        KOV_CAMERA_INFO info;
        if (KOVGetCameraProperty(&info, id) == KOV_SUCCESS && (name.empty() || name == info.Name)) {
            name = info.Name;
            return id;
        }
    }
    return -1;
}

int main(int argc, char** argv)
{
    const int wanted = argc > 1 ? std::atoi(argv[1]) : 100;
    std::string name;
    for (int got = 0, tries = 0; got < wanted && tries < 60; ++tries) {
        const int id = Find(name);
        if (id < 0) {
            std::printf("waiting for %s\n", name.empty() ? "a camera" : name.c_str());
            std::this_thread::sleep_for(500ms);
            continue;
        }
        Stream stream(id);
        std::printf("%s %s\n", name.c_str(), stream.IsOpen() ? "streams" : "cannot be opened");
        for (int late = 0; stream.IsOpen() && got < wanted && late < 3;)
            stream.Next() ? (++got, late = 0) : ++late;
        std::printf("%d of %d frames\n", got, wanted);
        if (got == wanted)
            return 0;
        std::this_thread::sleep_for(500ms);
    }
    return 1;
}
