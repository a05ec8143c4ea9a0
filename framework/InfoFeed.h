#pragma once

// Fills an info register from one of its module's info commands at each read.
#include "base/BaseException.h"
#include "base/Info.h"
#include "support/Allocation.h"

#include <functional>
#include <memory>
#include <new>

namespace QEL { namespace Base {

// The info to hand to a register: size-t and pointer values become eight-byte
// unsigned ones, so that the register always holds the same width.
inline InfoPtr RegisterInfoOf(const InfoPtr& info)
{
    if (!info)
        throw Exception("Info not available.", GC_ERR_NOT_AVAILABLE);
    InfoPtr widened = Tools::Allocating("Could not allocate info.", [&]() -> InfoPtr {
        if (info->GetType() == INFO_DATATYPE_SIZET) {
            auto value = std::dynamic_pointer_cast<const SizeTInfo>(info);
            if (!value)
                throw Exception("Invalid info retrieved.", GC_ERR_ERROR);
            return std::make_shared<UInt64Info>(value->GetValue());
        }
        if (info->GetType() == INFO_DATATYPE_PTR) {
            auto value = std::dynamic_pointer_cast<const PtrInfo>(info);
            if (!value)
                throw Exception("Invalid info retrieved.", GC_ERR_ERROR);
            return std::make_shared<UInt64Info>(reinterpret_cast<std::uintptr_t>(value->GetValue()));
        }
        return nullptr;
    });
    if (widened)
        return widened;
    return info;
}

// Connects the register's pre-read to `source`, for as long as `tracked` lives.
template <class R, class Tracked>
void ConnectInfoFeed(R& reg, std::function<InfoPtr()> source, const std::shared_ptr<Tracked>& tracked)
{
    reg.GetPreReadSignal().Connect(
        [source = std::move(source)](R& target) {
            const InfoPtr info = RegisterInfoOf(source());
            try {
                target.SetInfo(info);
            } catch (const Exception& e) {
                if (e.GetCode() == GC_ERR_INVALID_PARAMETER)
                    throw Exception("Invalid info retrieved.", GC_ERR_ERROR);
                throw;
            }
        },
        tracked);
}

} }
