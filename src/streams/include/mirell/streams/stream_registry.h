// The map from a link's token to its published stream. One instance, owned by the daemon host.
// Its mutex guards only the map: it is never held while a stream is closed or a line logged.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mirell/streams/media_stream.h"

namespace mirell::streams {

class StreamRegistry {
 public:
  // Stores the stream under the token; a stream already there is replaced but not closed.
  void Publish(const std::string& token, std::shared_ptr<MediaStream> stream);
  // Takes the stream out and closes its buses (video first), ending every reader. An unknown
  // token does nothing and logs nothing.
  void Withdraw(const std::string& token);
  // The same, only while `stream` is the one published there: one that has since been replaced
  // stays.
  void Withdraw(const std::string& token, const MediaStream* stream);
  // Moves the stream from one token to another and ends every reader it had (as Withdraw does)
  // while its buses stay open: readers under the new token play on. An unknown `from` does
  // nothing; a stream already under `to` is replaced but not closed.
  void Move(const std::string& from, const std::string& to);
  // The stream or null.
  std::shared_ptr<MediaStream> Find(const std::string& token) const;
  std::size_t Size() const;
  std::vector<std::string> Tokens() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<MediaStream>> streams_;
};

}  // namespace mirell::streams
