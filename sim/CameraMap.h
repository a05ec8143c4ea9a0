#pragma once

#include <cstdint>

// Where things lie in the virtual camera: its CCI registers (16-bit register
// addresses on the control bus) and its GenCP memory (64-bit addresses).
namespace QEL { namespace Sim { namespace CameraMap {

// CCI registers, values big endian.
constexpr std::uint16_t CciLayoutVersion = 0x0000;
constexpr std::uint16_t CciDeviceCapabilities = 0x0008;
constexpr std::uint16_t CciGcprmAddress = 0x0010;
constexpr std::uint16_t CciBcrmAddress = 0x0014;
constexpr std::uint16_t CciChangeMode = 0x021C;
constexpr std::uint16_t CciCurrentMode = 0x021D;
constexpr std::uint16_t CciReset = 0x021E;

constexpr std::uint16_t Gcprm = 0x0300;
constexpr std::uint16_t GcprmLayoutVersion = Gcprm + 0x00;
constexpr std::uint16_t GcprmOutBufferAddress = Gcprm + 0x04;
constexpr std::uint16_t GcprmInBufferAddress = Gcprm + 0x0C;
constexpr std::uint16_t GcprmOutHandshake = Gcprm + 0x18;
constexpr std::uint16_t GcprmInHandshake = Gcprm + 0x1C;
constexpr std::uint16_t GcprmOutSize = Gcprm + 0x20;
constexpr std::uint16_t GcprmInSize = Gcprm + 0x24;
constexpr std::uint16_t Bcrm = 0x0400;
constexpr std::uint16_t BcrmFirmwareVersion = Bcrm + 0x10;
constexpr std::uint16_t GenCPOutBuffer = 0x1000;
constexpr std::uint16_t GenCPInBuffer = 0x2000;
constexpr std::uint32_t GenCPBufferLimit = 0x1000;

// GenCP memory.
constexpr std::uint64_t Sbrm = 0x00010000;
constexpr std::uint64_t Sirm = 0x00020000;
constexpr std::uint64_t SirmLength = 0x80;
constexpr std::uint64_t Manifest = 0x00030000;
constexpr std::uint64_t XmlFile = 0x00100000;
constexpr std::uint64_t XmlFileSpacing = 0x01000000; // room for a document of up to 16 MiB
constexpr std::uint64_t XmlFileAddress(std::uint32_t entry) { return XmlFile + XmlFileSpacing * entry; }
constexpr std::uint64_t MaxLeaderSize = 52;
constexpr std::uint64_t MaxTrailerSize = 32;

// Frames with chunk data: payload type 0x4001, the trailer four bytes longer
// for the chunk layout ID. The payload is the image with its padding as one
// chunk, then a chunk with the block ID; each chunk ends in its ID and length.
constexpr std::uint16_t ChunkPayloadType = 0x4001;
constexpr std::uint32_t ChunkLayoutID = 0x1;
constexpr std::uint32_t ImageChunkID = 0xA5A5A5A5;
constexpr std::uint32_t FrameIDChunkID = 0x1001;
constexpr std::uint64_t ChunkTrailerSize = 8;
constexpr std::uint64_t FrameIDChunkSize = 8;

// Feature registers of the camera's GenApi document.
constexpr std::uint64_t WidthMax = 0x10200000;
constexpr std::uint64_t HeightMax = 0x10200004;
constexpr std::uint64_t Width = 0x10200010;
constexpr std::uint64_t Height = 0x10200014;
constexpr std::uint64_t OffsetX = 0x10200018;
constexpr std::uint64_t OffsetY = 0x1020001C;
constexpr std::uint64_t PixelFormatRegister = 0x10200020;
constexpr std::uint64_t TestPattern = 0x10200024;
constexpr std::uint64_t PayloadSize = 0x10200028;
constexpr std::uint64_t ExposureTime = 0x10200040;
constexpr std::uint64_t Gain = 0x10200048;
constexpr std::uint64_t AcquisitionFrameRate = 0x10200050;
constexpr std::uint64_t AcquisitionMode = 0x10200058;
constexpr std::uint64_t AcquisitionFrameCount = 0x1020005C;
constexpr std::uint64_t AcquisitionStart = 0x10220000;
constexpr std::uint64_t AcquisitionStop = 0x10220010;
constexpr std::uint64_t AcquisitionAbort = 0x10220020;

// The ASIC behind the camera's registers, reached indirectly.
constexpr std::uint64_t AsicAddress = 0xF0000100;
constexpr std::uint64_t AsicData = 0xF0000104;

// GenCP commands and statuses.
constexpr std::uint16_t ReadMemCmd = 0x0800;
constexpr std::uint16_t ReadMemAck = 0x0801;
constexpr std::uint16_t WriteMemCmd = 0x0802;
constexpr std::uint16_t WriteMemAck = 0x0803;
constexpr std::uint16_t PendingAck = 0x0805;

} } }
