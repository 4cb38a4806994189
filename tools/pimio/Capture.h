#pragma once
// Capture files through libpcap. Reading takes pcap and pcapng files of the link types that PIM
// packets are usually captured on and hands out the IP packet of each frame; writing produces
// pcap files of Ethernet frames.
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "knet/Address.h"
#include "knet/Pkt.h"

struct pcap;
struct pcap_dumper;

namespace Pimio::Cli {

// One frame of a capture: its 1-based number in the file and the bytes captured.
struct Frame {
  U32 number = 0;
  std::span<const U8> bytes;  // valid until the next call of CaptureReader::next()
};

struct LinkLayer;

class CaptureReader {
 public:
  // Opens a pcap or pcapng file ("-" is standard input). Returns null and sets `error` when the
  // file cannot be read or its link type is not one of those known here.
  static std::unique_ptr<CaptureReader> open(const std::string& path, std::string& error);
  ~CaptureReader();
  CaptureReader(const CaptureReader&) = delete;
  CaptureReader& operator=(const CaptureReader&) = delete;

  // The next frame; false at the end of the file or when the file is damaged (error() says so).
  bool next(Frame& frame);
  const std::string& error() const { return error_; }

  // The IP packet of a frame without its link-layer header; nullopt when the frame carries
  // something else than IPv4 or IPv6, or is too short to tell.
  std::optional<std::span<const U8>> ipPacket(const Frame& frame) const;

 private:
  CaptureReader(pcap* handle, const LinkLayer& link) : handle_(handle), link_(link) {}
  pcap* handle_;
  const LinkLayer& link_;
  U32 frames_ = 0;
  std::string error_;
};

class CaptureWriter {
 public:
  // Creates (or truncates) a pcap file of link type Ethernet. Returns null and sets `error` when
  // the file cannot be opened.
  static std::unique_ptr<CaptureWriter> open(const std::string& path, std::string& error);
  ~CaptureWriter();
  CaptureWriter(const CaptureWriter&) = delete;
  CaptureWriter& operator=(const CaptureWriter&) = delete;

  // Puts an Ethernet header in front of the IP packet in `pkt` and writes the frame. The
  // destination MAC address is the multicast mapping of `dst`, or a fixed one for unicast.
  // Time stamps count the frames in seconds, so that the same input gives the same file.
  void writeIpPacket(const Loom::Ptr<Knet::Pkt>& pkt, const Knet::IpGenAddr& dst);
  // Flushes and closes the file; false with `error` set if the data did not reach it.
  bool close(std::string& error);

 private:
  CaptureWriter(pcap* handle, pcap_dumper* dumper) : handle_(handle), dumper_(dumper) {}
  pcap* handle_;
  pcap_dumper* dumper_;
  U32 frames_ = 0;
};

}  // namespace Pimio::Cli
