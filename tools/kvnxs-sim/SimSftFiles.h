// The service's side of a file drop: it makes the named event of its drop-client record (67001),
// waits for the agent to set it, then reads the files the user gave from the transfer's
// temporary settings file. That file is an INI file in UTF-16LE with a byte-order mark:
//
//   [Files]
//   Counter=2
//   File1=C:\Users\ann\report.pdf
//   File2=\\fileserver\projects\plan.docx
//
// Counter is the number of files listed; File1..File<Counter> are full paths in the order the user
// gave them. Events and settings files are Windows objects: the host build only sends the record.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace kvsim
{

class SftDropEvent
{
public:
    SftDropEvent();
    ~SftDropEvent();
    SftDropEvent(const SftDropEvent&) = delete;
    SftDropEvent& operator=(const SftDropEvent&) = delete;

    // Makes the named event, not set; false with the reason.
    bool Create(const std::string& name, std::string& error);
    // Set by the agent since it was made (and not set again by anyone since the last look).
    bool Signalled();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// File1..File<Counter> of the settings file at path, in UTF-8; false with the reason when the file
// is missing, not UTF-16, or lacks an entry that its counter promises.
bool ReadSftFileList(const std::string& path, std::vector<std::string>& files, std::string& error);

} // namespace kvsim
