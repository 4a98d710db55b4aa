#include "common/FrameClock.h"

#include <algorithm>
#include <memory>

namespace kovtools {

void FrameClock::Add(Steady::time_point arrival, int dropped, double exposure)
{
    if (m_frames.empty()) {
        m_zero = std::chrono::system_clock::now() - std::chrono::duration_cast<Time::duration>(Steady::now() - arrival);
        m_first = arrival;
    }
    const auto number = static_cast<int64_t>(m_frames.size()) + dropped;
    m_frames.push_back({ std::chrono::duration<double>(arrival - m_first).count(), number, exposure });
}

bool FrameClock::BeginsAnew(size_t i, double usual) const
{
    // The library holds two frames for a slow reader; a longer pause has lost some.
    constexpr double HELD = 4, SLACK = 0.02;
    const Frame &before = m_frames[i - 1], &now = m_frames[i];
    const auto counted = static_cast<double>(now.number - before.number);
    return now.exposure != before.exposure || now.arrival - before.arrival > (counted + HELD) * usual + SLACK;
}

void FrameClock::Fit(size_t first, size_t last, std::vector<double>& line) const
{
    // The lower hull's edge over the mean number is the line below all points with the least sum of distances.
    std::vector<size_t> hull;
    double mean = 0;
    for (size_t i = first; i < last; ++i) {
        const auto cross = [&](size_t a, size_t b) {
            const Frame &p = m_frames[a], &q = m_frames[b], &r = m_frames[i];
            return static_cast<double>(q.number - p.number) * (r.arrival - p.arrival) -
                   (q.arrival - p.arrival) * static_cast<double>(r.number - p.number);
        };
        while (hull.size() >= 2 && cross(hull[hull.size() - 2], hull.back()) <= 0)
            hull.pop_back();
        hull.push_back(i);
        mean += static_cast<double>(m_frames[i].number) / static_cast<double>(last - first);
    }
    size_t edge = 1;
    while (edge + 1 < hull.size() && static_cast<double>(m_frames[hull[edge]].number) < mean)
        ++edge;
    for (size_t i = first; i < last; ++i) {
        if (hull.size() < 2) {
            line.push_back(m_frames[i].arrival);
            continue;
        }
        const Frame &a = m_frames[hull[edge - 1]], &b = m_frames[hull[edge]];
        const double period = b.number == a.number ? 0 : (b.arrival - a.arrival) / static_cast<double>(b.number - a.number);
        line.push_back(a.arrival + period * static_cast<double>(m_frames[i].number - a.number));
    }
}

std::vector<FrameClock::Time> FrameClock::Starts() const
{
    std::vector<double> gaps;
    for (size_t i = 1; i < m_frames.size(); ++i)
        gaps.push_back((m_frames[i].arrival - m_frames[i - 1].arrival) /
                       static_cast<double>(std::max<int64_t>(1, m_frames[i].number - m_frames[i - 1].number)));
    if (!gaps.empty())
        std::nth_element(gaps.begin(), gaps.begin() + static_cast<std::ptrdiff_t>(gaps.size() / 2), gaps.end());
    const double usual = gaps.empty() ? 0 : gaps[gaps.size() / 2];

    std::vector<double> line;
    for (size_t first = 0, i = 1; i <= m_frames.size(); ++i)
        if (i == m_frames.size() || BeginsAnew(i, usual)) {
            Fit(first, i, line);
            first = i;
        }
    std::vector<Time> starts;
    for (size_t i = 0; i < line.size(); ++i) {
        const auto after = std::chrono::duration<double>(line[i] - m_frames[i].exposure);
        Time start = m_zero + std::chrono::duration_cast<Time::duration>(after);
        if (!starts.empty())
            start = std::max(start, starts.back() + std::chrono::microseconds(1));
        starts.push_back(start);
    }
    return starts;
}

}  // namespace kovtools
