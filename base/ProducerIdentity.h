#pragma once

// The names this producer reports of itself (TL_INFO_MODEL, the ports' models,
// TL_INFO_DISPLAYNAME). A consumer that knows the model knows the producer,
// and with it the one-call buffer record of base/BufferRecord.h.
namespace QEL { namespace Base {

inline constexpr char ProducerModel[] = "Lorun CSI-2 GenTL";
inline constexpr char ProducerDisplayName[] = "Lorun CSI-2 GenTL Producer";

}} // namespace QEL::Base
