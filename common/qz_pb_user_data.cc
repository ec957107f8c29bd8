#include "common/qz_pb_user_data.h"

#include <cstring>
#include <new>

namespace qz_common {

bool PublisherUserData::SetData(const QZ_BYTE* data, QZ_INT32 size) {
  data_.reset();
  size_ = 0;
  is_utf8_string_ = false;
  if (data == nullptr || size < 1) {
    return false;
  }
  data_.reset(new (std::nothrow) unsigned char[static_cast<size_t>(size)]);
  if (!data_) {
    return false;
  }
  std::memcpy(data_.get(), data, static_cast<size_t>(size));
  size_ = size;
  return true;
}

bool PublisherUserData::SetUTF8String(const std::string& text) {
  data_.reset();
  size_ = 0;
  is_utf8_string_ = false;
  if (text.size() >= 0x7FFFFFFF) {
    return false;
  }
  data_.reset(new (std::nothrow) unsigned char[text.size() + 1]);
  if (!data_) {
    return false;
  }
  std::memcpy(data_.get(), text.data(), text.size());
  data_[text.size()] = 0;
  size_ = static_cast<QZ_INT32>(text.size());
  is_utf8_string_ = true;
  return true;
}

PublisherUserDataQueue::PublisherUserDataQueue(QZ_INT32 max_size)
    : max_size_(max_size > 0 ? static_cast<QZ_UINT32>(max_size) : 0) {}

std::shared_ptr<PublisherUserData> PublisherUserDataQueue::Pop() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (datas_.empty()) {
    return nullptr;
  }
  std::shared_ptr<PublisherUserData> front = std::move(datas_.front());
  datas_.pop_front();
  return front;
}

void PublisherUserDataQueue::Push(std::shared_ptr<PublisherUserData>& data) {
  if (!data) {
    return;
  }
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (max_size_ == 0) {
    return;
  }
  while (datas_.size() >= max_size_) {
    datas_.pop_front();
  }
  datas_.push_back(data);
}

void PublisherUserDataQueue::Clear() {
  std::list<std::shared_ptr<PublisherUserData>> released;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    released.swap(datas_);
  }
}

size_t PublisherUserDataQueue::Size() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return datas_.size();
}

}  // namespace qz_common
