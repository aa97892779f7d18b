// Installed-bundle records ("\temp\Quovera\QVSubSystems\QVBundles.xml") that the device agent
// reports as assets, and the plug-in's own version files for the device monitor. The bundle-file
// operations are serialised with each other; failures are logged, never returned.
#pragma once

// Adds bundleName with version, replacing an earlier record of the same name.
void SetBundleNameForAssetMsg(const char* version, const char* bundleName);
// Removes bundleName's record; the file is rewritten only when a record was removed.
void ClearQVBundleEntry(const char* bundleName);
// Writes "Version=3.50d" to FileTransferConfiglet.ini and MCFTP.ini. Returns the last file
// operation's result (1 when the last file was written).
int AddVersionForDevMon();
// Copies "\temp\Quovera" into dir, which must hold at least 14 bytes.
void GetSubSysDir(char* dir);

// The folder GetSubSysDir names, and the bundle file below it.
const char QV_SUBSYS_DIR[] = "\\temp\\Quovera";
const char QV_BUNDLE_FILE[] = "\\temp\\Quovera\\QVSubSystems\\QVBundles.xml";
