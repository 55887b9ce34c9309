// Files by extension, in a folder with many files.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Commands.h"
#include "Wire.h"
#include "usb_rpc_gen_.h"

namespace bench {

namespace {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TMemoryBuffer;

constexpr const char* extension = "mp3";
constexpr const char* upperCaseExtension = "MP3";

std::vector<std::string> matchingFiles(const std::string& folder) {
  DIR* const directory = opendir(folder.c_str());
  if (directory == nullptr) {
    throw std::runtime_error(errorText(folder));
  }
  std::vector<std::string> files;
  while (const dirent* entry = readdir(directory)) {
    const char* const dot = std::strrchr(entry->d_name, '.');
    const char* const suffix = dot != nullptr ? dot + 1 : entry->d_name;
    if (std::strcmp(suffix, extension) == 0 || std::strcmp(suffix, upperCaseExtension) == 0) {
      files.emplace_back(entry->d_name);
    }
  }
  closedir(directory);
  return files;
}

/// Encodes the reply as it goes over the socket; returns its size in bytes.
std::size_t encode(std::vector<std::string> files) {
  const auto buffer = std::make_shared<TMemoryBuffer>();
  TBinaryProtocol protocol(buffer);
  protocol.writeMessageBegin("GetFilesByExtension", apache::thrift::protocol::T_REPLY, 0);
  ravel::rpc::usb_rpc_gen__GetFilesByExtension_result result;
  result.success = std::move(files);
  result.__isset.success = true;
  result.write(&protocol);
  protocol.writeMessageEnd();
  return buffer->available_read();
}

}  // namespace

void fillFolder(const Arguments& arguments) {
  const std::string& folder = arguments.at(0);
  mkdir(folder.c_str(), 0755);
  // Hard links are fast to make, and tmpfs has no limit on them.
  const std::string first = folder + "/song.ogg";
  close(open(first.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  const std::size_t count = number(arguments.at(1));
  for (std::size_t i = 1; i < count; ++i) {
    const std::string name = folder + "/song" + std::to_string(i) + (i % 10 == 0 ? ".mp3" : ".ogg");
    if (link(first.c_str(), name.c_str()) != 0) {
      throw std::runtime_error(errorText(name));
    }
  }
  report("files", static_cast<double>(count));
}

void searchFiles(const Arguments& arguments) {
  const RawConnection connection(arguments.at(0));
  const auto buffer = std::make_shared<TMemoryBuffer>();
  // No device has the number 0, so the folder is relative to /.
  ravel::rpc::usb_rpc_gen_Client(std::make_shared<TBinaryProtocol>(buffer))
      .send_GetFilesByExtension(0, arguments.at(1), extension);
  const std::string message = buffer->getBufferAsString();
  std::string answer(number(arguments.at(2)), '\0');
  reportMedian(sample(number(arguments.at(3)), [&] { connection.exchange(message, answer); }));
}

void bareSearch(const Arguments& arguments) {
  std::size_t bytes = 0;
  reportMedian(sample(number(arguments.at(1)), [&] { bytes = encode(matchingFiles(arguments.at(0))); }));
  report("bytes", static_cast<double>(bytes));
}

}  // namespace bench
