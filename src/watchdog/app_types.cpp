#include "app_types.h"

#include <cerrno>
#include <cstring>

const app_type app_types[APP_TYPES_CNT] = {
    {"none", "", 0x00},
    {"filetranscoder", "VantrelFileTranscoder", 0x81},
    {"filetransfer", "VantrelFileTransfer", 0x81},
    {"gpi", nullptr, 0x01},
    {"io", "VantrelIO", 0x41},
    {"lcd", "VantrelLCD", 0x01},
    {"lib", "VantrelLib", 0x01},
    {"ltc", "VantrelLTC", 0x01},
    {"sched", "VantrelSched", 0x05},
    {"vdcp", "VantrelVDCP", 0x01},
    {"box1", "VantrelBox1", 0x01},
    {"dynmpl", "VantrelBoxDynMPL", 0x01},
    {"libadapter", "VantrelLibAdapter", 0x01},
    {"libcleaner", "VantrelBoxLibCleaner", 0x01},
    {"libfeeder", "VantrelBoxLibFeeder", 0x01},
    {"plyconv", "VantrelBoxPlyConv", 0x01},
    {"rki", "VantrelBoxRKI", 0x01},
    {"stl", "VantrelBoxSTL", 0x01},
    {"ticker_crawl", "VantrelBoxTickerCrawl", 0x01},
    {"bridge", "VantrelBridge", 0x00},
    {"elem_matrix", "VantrelElementsMatrix", 0x03},
    {"elem_mixer", "VantrelElementsMixer", 0x07},
    {"elem_mult4", "VantrelElementsMult4", 0x03},
    {"elem_flash", "VantrelElementsFlash", 0x3b},
    {"elem_io_decklink_out", "VantrelElementsIODecklinkOutput", 0x03},
    {"elem_io_decklink_in", "VantrelElementsIODecklinkInput", 0x03},
    {"elem_io_ndi_out", "VantrelElementsIONDIOutput", 0x03},
    {"elem_io_ndi_in", "VantrelElementsIONDIInput", 0x03},
    {"elem_multi", "VantrelElementsMulti", 0x07},
    {"elem_amix", "VantrelElementsAMix", 0x03},
    {"elem_dsp", "VantrelElementsDSP", 0x07},
    {"elem_delay", "VantrelElementsDelay", 0x03},
    {"elem_dve", "VantrelElementsDVE", 0x07},
    {"elem_abmix", "VantrelElementsABMix", 0x07},
    {"elem_oxtel_proxy", "VantrelElementsOxtelProxy", 0x01},
    {"box2", "VantrelBox2", 0x01},
    {"elem_subs_burn", "VantrelElementsSubsBurn", 0x07},
    {"elem_subs_ins", "VantrelElementsSubsIns", 0x07},
    {"elem_b1mix", "VantrelElementsB1Mix", 0x07},
    {"elem_io_drm_out", "VantrelElementsIODRMOutput", 0x07},
    {"elem_io_jpeg_out", "VantrelElementsIOJPEGOutput", 0x03},
    {"elem_mosaic", "VantrelElementsMosaic", 0x07},
    {"elem_color", "VantrelElementsColor", 0x07},
    {"script", "", 0x00},
    {"elem_dve3d", "VantrelElementsDVE3D", 0x07},
    {"elem_clock", "VantrelElementsClock", 0x07},
};

const char* const app_default_opts[APP_DEFAULT_OPTS_CNT] = {
    "--log-file-name=", "--matrix=", "--state-save=", "--Local=",
    "--Root=", "--crossdomain=", "--settings=", "--db=",
};

std::string app_default_opt_value(int bit, const std::string& alias)
{
    switch (bit) {
    case 0: return "/Vantrel/logs/" + alias + "/log";
    case 1: return "/Vantrel/runtime/matrix0";
    case 2:
    case 3:
    case 6: return "/Vantrel/runtime/" + alias;
    case 4: return "file:///Vantrel/flash";
    case 5: return "http://127.0.0.1/crossdomain.xml";
    case 7: return "/Vantrel/runtime/" + alias + ".db";
    default: return "";
    }
}

int instance_apps_lookup(const char* name)
{
    if (!name) return -ENOENT;
    for (int i = 0; i < APP_TYPES_CNT; i++)
        if (strcmp(app_types[i].name, name) == 0) return i;
    return -ENOENT;
}
