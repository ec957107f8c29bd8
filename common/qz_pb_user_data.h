// User data that the application wants carried inside the video stream,
// and the bounded queue that holds it until the send thread takes it.
#ifndef COMMON_QZ_PB_USER_DATA_H_
#define COMMON_QZ_PB_USER_DATA_H_

#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "topcommon/qz_type_define.h"

namespace qz_common {

// One item: binary bytes, or a UTF-8 text stored with a terminating zero
// byte (readers take the text up to its first zero byte).
class PublisherUserData {
 public:
  PublisherUserData() : size_(0), is_utf8_string_(false) {}

  // Copies `size` bytes; false (and the item left empty) for a null pointer,
  // a size below 1 or an exhausted allocator.
  bool SetData(const QZ_BYTE* data, QZ_INT32 size);
  // Copies the text and a zero byte after it; Size() counts the text only.
  bool SetUTF8String(const std::string& text);

  bool IsUtf8String() const { return is_utf8_string_; }
  const QZ_BYTE* Data() const { return data_.get(); }
  QZ_INT32 Size() const { return size_; }

 private:
  std::unique_ptr<unsigned char[]> data_;
  QZ_INT32 size_;
  bool is_utf8_string_;
};

// A thread-safe FIFO of user data items holding at most `max_size` items.
// Live user data loses its value with age, so a full queue drops its oldest
// item to make room for the newest one.
class PublisherUserDataQueue {
 public:
  explicit PublisherUserDataQueue(QZ_INT32 max_size);

  PublisherUserDataQueue(const PublisherUserDataQueue&) = delete;
  PublisherUserDataQueue& operator=(const PublisherUserDataQueue&) = delete;

  // The oldest item, or an empty pointer when none is held.
  std::shared_ptr<PublisherUserData> Pop();
  // Empty pointers are ignored. A capacity below 1 holds nothing.
  void Push(std::shared_ptr<PublisherUserData>& data);
  void Clear();
  size_t Size();

 private:
  std::recursive_mutex mutex_;  // guards datas_
  QZ_UINT32 max_size_;
  std::list<std::shared_ptr<PublisherUserData>> datas_;
};

}  // namespace qz_common

#endif  // COMMON_QZ_PB_USER_DATA_H_
