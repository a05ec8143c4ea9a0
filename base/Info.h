#pragma once

#include "base/GenTL.h"
#include "base/Object.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace QEL { namespace Base {

// An immutable typed answer to a GenTL info query.
class Info : public virtual QEL::System::Object {
public:
    virtual INFO_DATATYPE GetType() const = 0;
    virtual std::size_t GetSize() const = 0;
    // Size question with a null buffer, "Buffer too small." when *size is short.
    virtual void Read(void* buffer, std::size_t* size) const;
    // The value as an unsigned number of its own width (signed values
    // zero-extended, a double as its bits); false for infos that are no number.
    virtual bool ReadNumber(std::uint64_t& /*number*/) const { return false; }

protected:
    virtual void CopyTo(void* buffer) const = 0;
};

// A fixed info (every numeric type) through ReadNumber, right on any byte
// order; anything else throws GC_ERR_ERROR "Unexpected info type retrieved.".
std::uint64_t NumericValue(const Info& info);

class FixedInfo : public virtual Info {};
class VariableInfo : public virtual Info {};

template <class T, INFO_DATATYPE Type>
class BasicFixedInfo : public virtual FixedInfo {
public:
    explicit BasicFixedInfo(T value) : value(value) {}
    INFO_DATATYPE GetType() const override { return Type; }
    std::size_t GetSize() const override { return sizeof(T); }
    T GetValue() const { return value; }
    bool ReadNumber(std::uint64_t& number) const override
    {
        static_assert(sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8);
        using Bits =
            std::conditional_t<sizeof(T) == 1, std::uint8_t,
                               std::conditional_t<sizeof(T) == 2, std::uint16_t,
                                                  std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>;
        Bits bits;
        std::memcpy(&bits, &value, sizeof bits);
        number = bits;
        return true;
    }

protected:
    void CopyTo(void* buffer) const override { *static_cast<T*>(buffer) = value; }

private:
    T value;
};

using Int16Info = BasicFixedInfo<std::int16_t, INFO_DATATYPE_INT16>;
using UInt16Info = BasicFixedInfo<std::uint16_t, INFO_DATATYPE_UINT16>;
using Int32Info = BasicFixedInfo<std::int32_t, INFO_DATATYPE_INT32>;
using UInt32Info = BasicFixedInfo<std::uint32_t, INFO_DATATYPE_UINT32>;
using Int64Info = BasicFixedInfo<std::int64_t, INFO_DATATYPE_INT64>;
using UInt64Info = BasicFixedInfo<std::uint64_t, INFO_DATATYPE_UINT64>;
using Float64Info = BasicFixedInfo<double, INFO_DATATYPE_FLOAT64>;
using PtrInfo = BasicFixedInfo<void*, INFO_DATATYPE_PTR>;
using Bool8Info = BasicFixedInfo<bool8_t, INFO_DATATYPE_BOOL8>;
using SizeTInfo = BasicFixedInfo<std::size_t, INFO_DATATYPE_SIZET>;
using PtrDiffTInfo = BasicFixedInfo<std::ptrdiff_t, INFO_DATATYPE_PTRDIFF>;

class StringInfo : public virtual VariableInfo {
public:
    explicit StringInfo(const std::string& text);
    StringInfo(const char* chars, std::size_t length);
    INFO_DATATYPE GetType() const override { return INFO_DATATYPE_STRING; }
    std::size_t GetSize() const override { return value.size() + 1; }
    const std::string& GetValue() const { return value; }

protected:
    void CopyTo(void* buffer) const override;

private:
    std::string value;
};

class StringListInfo : public virtual VariableInfo {
public:
    explicit StringListInfo(const std::vector<std::string>& strings);
    StringListInfo(const char* chars, std::size_t length);
    INFO_DATATYPE GetType() const override { return INFO_DATATYPE_STRINGLIST; }
    std::size_t GetSize() const override;
    const std::vector<std::string>& GetValue() const { return value; }

protected:
    void CopyTo(void* buffer) const override;

private:
    std::vector<std::string> value;
};

class BufferInfo : public virtual VariableInfo {
public:
    BufferInfo(const void* data, std::size_t size);
    explicit BufferInfo(std::vector<std::uint8_t> bytes) : value(std::move(bytes)) {}
    INFO_DATATYPE GetType() const override { return INFO_DATATYPE_BUFFER; }
    std::size_t GetSize() const override { return value.size(); }
    void Read(void* buffer, std::size_t* size) const override;
    const std::vector<std::uint8_t>& GetValue() const { return value; }

protected:
    void CopyTo(void* buffer) const override;

private:
    std::vector<std::uint8_t> value;
};

using InfoPtr = std::shared_ptr<const Info>;

// Text of every TLTYPE info; the numbers are this producer's own.
std::string TLTypeToString(std::int32_t type);

} }
