#pragma once

#include "framework/BaseLibrary.h"
#include "support/BasicLockable.h"
#include "support/Settings.h"

#include <memory>

namespace QEL { namespace CSI {

class System;

// Answers GCGetInfo from the settings and owns the module tree while initialised.
class Library : public Tools::BasicLockable<Base::Library> {
public:
    explicit Library(std::shared_ptr<Settings> settings);
    ~Library() override;

    void Close() override;
    bool IsOpen() const override { return open; }
    Base::InfoPtr GetInfo(TL_INFO_CMD command) const override;
    std::size_t GetInfoSize(TL_INFO_CMD command, INFO_DATATYPE* type) const override;
    std::shared_ptr<Base::System> GetSystem() override;

    // The System's info: works from the settings alone, before any module exists.
    static Base::InfoPtr GetSystemInfo(const std::shared_ptr<const Settings>& settings, TL_INFO_CMD command);

private:
    bool open = true;
    std::shared_ptr<Settings> settings;
    std::shared_ptr<System> system;
};

} }
