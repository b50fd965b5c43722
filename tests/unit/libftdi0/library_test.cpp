#include "libftdi0/finddev.h"
#include "tq5ftdi.h"
#include "world.h"

namespace {

using LibraryTest = WorldTest;

TEST_F(LibraryTest, FindsTheNodePathBehindAHub) {
    struct usb_device& root = world.attach("001");
    struct usb_device& hub = world.attach("002");
    struct usb_device& unit = world.attach("003");
    struct usb_device& stranger = world.attach("009");
    struct usb_device* rootChildren[] = {nullptr, &hub};
    struct usb_device* hubChildren[] = {nullptr, &unit};
    root.children = rootChildren;
    root.num_children = 2;
    hub.children = hubChildren;
    hub.num_children = 2;
    listedBus.root_dev = &root;
    EXPECT_EQ(deviceNodePath(&hub), "001/002");
    EXPECT_EQ(deviceNodePath(&unit), "001/002/003");
    EXPECT_EQ(deviceNodePath(&stranger), "");
    {
        hub.descriptor.bcdDevice = 0;
        TQ5Ftdi driver;
        for (const char* path : {"001/003", "001/002/003"}) {
            EXPECT_TRUE(driver.openByNodePath(path));
            EXPECT_EQ(driver.nodePath, path);
            EXPECT_EQ(driver.isNamedByEvents(), std::string(path) == "001/003");
            driver.close();
        }
        EXPECT_TRUE(driver.openByNodePath("001/009"));  // not in the tree
        driver.close();
        EXPECT_FALSE(driver.openByNodePath("001/010"));
    }
    listedBus.root_dev = nullptr;
    EXPECT_EQ(deviceNodePath(&unit), "001/003");

    std::string path;
    EXPECT_DEATH(findDev(nullptr, &unit, path),
                 R"(\.\./\.\./pinwatchd/src/tq5ftdi\.cpp:.*bool findDev\(usb_device\*, )"
                 R"(usb_device\*, std::string&\): .*`where && "where is null"')");
}

}  // namespace

extern "C" int usb_reset(usb_dev_handle*) {
    world.add("usb_reset");
    return -1;
}
