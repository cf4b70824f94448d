// A window without its images, and without an address to show.

#include <QFile>
#include <QIcon>
#include <QLabel>
#include <QLineEdit>

#include "gui/VelantrixServer.h"
#include "gui_test.h"

namespace {

bool addressIsNull = false;
bool resourcesMissing = false;

}  // namespace

// The names are the linker's (see its --wrap).
extern "C" {

const char* __real__ZN20VelantrixServerNoGUI12GetIPAddressEv();
const char* __wrap__ZN20VelantrixServerNoGUI12GetIPAddressEv();
int __real__Z30qInitResources_VelantrixServerv();
int __wrap__Z30qInitResources_VelantrixServerv();

const char* __wrap__ZN20VelantrixServerNoGUI12GetIPAddressEv() {
    return addressIsNull ? nullptr : __real__ZN20VelantrixServerNoGUI12GetIPAddressEv();
}

int __wrap__Z30qInitResources_VelantrixServerv() {
    return resourcesMissing ? 0 : __real__Z30qInitResources_VelantrixServerv();
}

}  // extern "C"

static void dropResources() {
    Q_CLEANUP_RESOURCE(VelantrixServer);
}

namespace {

using MissingPartsDeathTest = ::testing::Test;  // The resources exist once per process.

void expectNoImagesAndNoReport() {
    resourcesMissing = true;
    dropResources();
    ASSERT_FALSE(QFile::exists(":/vx-icon-sm.png"));
    ASSERT_FALSE(QFile::exists(":/win_bitmap.bmp"));
    ::testing::internal::CaptureStderr();
    const VelantrixServer window(nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(window.windowIcon().availableSizes().isEmpty());
    const auto* const label = window.findChild<QLabel*>("labelImage");
    EXPECT_TRUE(label->pixmap(Qt::ReturnByValue).isNull());
}

TEST_F(MissingPartsDeathTest, MissingResourcesLeaveIconAndLogoEmptyInSilence) {
    EXPECT_IN_FRESH_PROCESS(expectNoImagesAndNoReport());
}

TEST(MissingParts, NoAddressShowsAnEmptyLine) {
    VelantrixServer window(nullptr);
    auto& line = *window.findChild<QLineEdit*>("lineEditServerAddress");
    line.setText("old");
    addressIsNull = true;
    window.UpdateState();
    addressIsNull = false;
    EXPECT_EQ(line.text(), "");
}

}  // namespace
