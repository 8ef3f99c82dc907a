#include "enhance/pass_times.h"

#include <algorithm>
#include <numeric>

#include "common/percentile.h"

namespace noxel::tool {

void PassTimes::add(const std::string& pass, uint64_t nanoseconds) {
  auto found = std::find_if(passes_.begin(), passes_.end(), [&](const Pass& known) { return known.name == pass; });
  if (found == passes_.end())
    found = passes_.insert(passes_.begin() + static_cast<ptrdiff_t>(next_), Pass{.name = pass});
  next_ = static_cast<size_t>(found - passes_.begin()) + 1;
  ++found->drawn;
  if (nanoseconds == 0) return;
  if (!found->inFrame) found->ms.push_back(0);
  found->inFrame = true;
  found->ms.back() += static_cast<double>(nanoseconds) / 1e6;
}

void PassTimes::endFrame() {
  for (Pass& pass : passes_) pass.inFrame = false;
  next_ = 0;
}

nlohmann::ordered_json PassTimes::json() const {
  const auto sum = [](const Pass& pass) { return std::accumulate(pass.ms.begin(), pass.ms.end(), 0.0); };
  double all = 0;
  for (const Pass& pass : passes_) all += sum(pass);
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (const Pass& pass : passes_) {
    rows.push_back({{"pass", pass.name},
                    {"drawn", pass.drawn},
                    {"ms_mean", pass.ms.empty() ? 0 : sum(pass) / static_cast<double>(pass.ms.size())},
                    {"ms_p50", percentile(pass.ms, 50)},
                    {"ms_max", percentile(pass.ms, 100)},
                    {"share", all > 0 ? sum(pass) / all : 0}});
  }
  return rows;
}

void PassTimes::print(std::FILE* out) const {
  std::fprintf(out, "%-24s %6s %8s %8s %8s %7s\n", "pass, ms per frame", "drawn", "mean", "p50", "max", "share");
  for (const auto& row : json()) {
    std::fprintf(out, "%-24s %6lld %8.3f %8.3f %8.3f %5.1f %%\n", row["pass"].get<std::string>().c_str(),
                 static_cast<long long>(row["drawn"].get<int64_t>()), row["ms_mean"].get<double>(),
                 row["ms_p50"].get<double>(), row["ms_max"].get<double>(), 100 * row["share"].get<double>());
  }
}

}  // namespace noxel::tool
