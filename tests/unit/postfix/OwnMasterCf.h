// OwnMasterCf: a fixture with a configuration directory of the test's own.
#pragma once

#include "support/FixedPaths.h"
#include "support/ScratchDir.h"
#include "unit/postfix/FreshStart.h"
#include "unit/postfix/ToolStandIns.h"

#include <string>

namespace support {

/// With postconf replaced: it names a directory of the test's own, with no master.cf yet.
class OwnMasterCfTest : public FreshProcessTest {
protected:
    OwnMasterCfTest()
    {
        tools_.replace(postconfPath);
        tools_.answer(postconfPath, {"-h", "config_directory"}, ToolAnswer::directory(scratch_.path()));
    }

    void writeMasterCf(const std::string& text) const { writeFile(path_, text); }
    std::string masterCf() const { return readFile(path_); }

    ScratchDir scratch_;
    ToolStandIns tools_;
    const std::string path_ = scratch_.file("master.cf");
};

/// With postmap replaced too. Each run of a tool records master.cf and the table's source file.
class OwnMasterCfAndTableTest : public OwnMasterCfTest {
protected:
    OwnMasterCfAndTableTest()
    {
        tools_.replace(postmapPath);
        tools_.watchFile(path_);
        tools_.watchFile(tableSourcePath);
    }
};

} // namespace support
