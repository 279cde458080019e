// The rules that turn the USB and iOS inputs into the published link: which ep0 events count,
// which speed names mean super speed, and which link wins.
#include <gtest/gtest.h>

#include <cstring>

#include <linux/usb/functionfs.h>

#include "usbd.h"
#include "usbep0.h"
#include "usbspeedreader.h"

namespace {

// Feeds event types to a fresh filter; the link values it reports, -1 for an ignored event.
std::vector<int> filtered(std::initializer_list<int> types)
{
    Ep0EventFilter filter;
    std::vector<int> links;
    for (int type : types)
        links.push_back(filter.accept(quint8(type)));
    return links;
}

TEST(Ep0Events, RepeatsAndOtherTypesAreIgnored)
{
    // A first DISABLE is no news; BIND is down, UNBIND up; the same type twice counts once.
    EXPECT_EQ(filtered({FUNCTIONFS_DISABLE, FUNCTIONFS_BIND, FUNCTIONFS_ENABLE, FUNCTIONFS_ENABLE,
                        FUNCTIONFS_DISABLE, FUNCTIONFS_UNBIND}),
              (std::vector<int>{-1, 0, 1, -1, 0, 1}));
    // SETUP, SUSPEND and RESUME change nothing, but make the next ENABLE news again.
    EXPECT_EQ(filtered({FUNCTIONFS_ENABLE, FUNCTIONFS_SUSPEND, FUNCTIONFS_RESUME, FUNCTIONFS_ENABLE,
                        FUNCTIONFS_SETUP, FUNCTIONFS_SETUP, FUNCTIONFS_ENABLE, 200}),
              (std::vector<int>{1, -1, -1, 1, -1, -1, 1, -1}));
}

TEST(SpeedNames, OnlySuperSpeedCountsAndThePrefixDecides)
{
    auto super = [](const char *text) {
        return UsbSpeedReader::namesSuperSpeed(text, strlen(text));
    };
    EXPECT_TRUE(super("super-speed\n"));
    EXPECT_TRUE(super("super-speed-plus\n")); // the kernel's name for super speed plus
    EXPECT_TRUE(super("super-speed"));        // no newline
    EXPECT_FALSE(super("high-speed\n"));
    EXPECT_FALSE(super("UNKNOWN\n"));
    EXPECT_FALSE(super("super-spee")); // shorter than the name
    EXPECT_FALSE(super(""));
    EXPECT_FALSE(super("Super-speed\n"));
}

TEST(LinkType, MfiWinsOverUsbWhichWinsOverWifi)
{
    const auto none = OstrTypes::LinkTypeNone;
    const auto usb = OstrTypes::LinkTypeUsb;
    const auto mfi = OstrTypes::LinkTypeMfi;
    const auto wifi = OstrTypes::LinkTypeWifi;
    EXPECT_EQ(UsbD::linkTypeFor(false, IOSConnStateWatcher::NotConnectedState), none);
    EXPECT_EQ(UsbD::linkTypeFor(true, IOSConnStateWatcher::NotConnectedState), usb);
    EXPECT_EQ(UsbD::linkTypeFor(true, IOSConnStateWatcher::MfiState), mfi);
    EXPECT_EQ(UsbD::linkTypeFor(false, IOSConnStateWatcher::MfiState), mfi);
    EXPECT_EQ(UsbD::linkTypeFor(true, IOSConnStateWatcher::WifiState), usb);
    EXPECT_EQ(UsbD::linkTypeFor(false, IOSConnStateWatcher::WifiState), wifi);
    // A state the library should not report is taken as no iOS link.
    EXPECT_EQ(UsbD::linkTypeFor(true, 7), usb);
    EXPECT_EQ(UsbD::linkTypeFor(false, -1), none);
}

} // namespace
