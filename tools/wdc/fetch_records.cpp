#include "tools/wdc/fetch_records.h"

#include <condition_variable>
#include <deque>
#include <mutex>

namespace wdc::cli {

std::vector<FetchedRecord> fetchRecords(WebDAVConnect& store, const FileList& records,
                                        const std::string& folder, int64_t retryLimit,
                                        const std::function<void(const FetchedRecord&)>& onEach) {
  struct Arrivals {
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<size_t> ready;
  };
  auto arrivals = std::make_shared<Arrivals>();
  auto fetched = std::make_shared<std::vector<FetchedRecord>>(records.size());
  for (size_t i = 0; i < records.size(); ++i) {
    (*fetched)[i].meta = records[i];
    store.getContentsForFile(
        records[i], folder, retryLimit,
        [arrivals, fetched, i](std::shared_ptr<WebDAVFileContents> contents,
                               std::optional<Error> error) {
          std::lock_guard lock(arrivals->mutex);
          (*fetched)[i].contents = std::move(contents);
          (*fetched)[i].error = std::move(error);
          arrivals->ready.push_back(i);
          arrivals->arrived.notify_one();
        });
  }
  for (size_t done = 0; done < records.size(); ++done) {
    size_t index = 0;
    {
      std::unique_lock lock(arrivals->mutex);
      arrivals->arrived.wait(lock, [&] { return !arrivals->ready.empty(); });
      index = arrivals->ready.front();
      arrivals->ready.pop_front();
    }
    if (onEach) onEach((*fetched)[index]);
  }
  std::lock_guard lock(arrivals->mutex);
  return *fetched;
}

}  // namespace wdc::cli
