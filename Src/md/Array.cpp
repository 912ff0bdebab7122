#include "Src/md/Array.h"

#include <cerrno>

namespace Md {

static_assert(sizeof(mdu_array_info_s) == 72 && sizeof(mdu_disk_info_s) == 20);
static_assert(GET_ARRAY_INFO == 0x80480911 && GET_DISK_INFO == 0x80140912 && SET_ARRAY_INFO == 0x40480923 &&
              ADD_NEW_DISK == 0x40140921 && RUN_ARRAY == 0x400c0930 && STOP_ARRAY == 0x0932 &&
              HOT_REMOVE_DISK == 0x0922 && SET_DISK_FAULTY == 0x0929);

std::optional<mdu_array_info_s> CArray::Info() const {
  mdu_array_info_s info{};
  if (!Request(GET_ARRAY_INFO, &info)) return std::nullopt;
  return info;
}

TDisk CArray::Disk(int number) const {
  mdu_disk_info_s disk{};
  disk.number = number;
  if (!Request(GET_DISK_INFO, &disk)) return std::nullopt;
  return disk;
}

bool CArray::Run() {
  const int answer = m_OS.Ioctl(m_Device.Get(), RUN_ARRAY, nullptr);
  if (answer > 0) errno = EINVAL;  // a concatenation answers 1 where it does not start
  return answer == 0;
}

}  // namespace Md
