#include "surface/words/SettingsWords.h"

#include "text/Machine.h"

using namespace Qt::StringLiterals;

namespace SettingsWords {

Switch files(const LocalStatus& status)
{
    Switch files;
    files.title = u"Browse outside projects"_s;
    files.on = status.files && status.files->browseOutsideProjects.value_or(false);
    if (files.on)
        files.tag = u"outside projects too"_s;
    files.help = u"Open sessions’ folders in your home folder too, read only."_s;
    files.why = u"A paired phone can then read those folders and download their files. Folders with keys and private "
                "data (.ssh, keychains, mail, browsers’ profiles, app data) and files with passwords stay locked "
                "whatever this says, and folders outside your home folder stay closed."_s;
    return files;
}

QString filesChanged(bool on)
{
    return on ? u"Phones can open sessions’ folders in your home folder too, read only"_s
              : u"Phones open only your projects folder again"_s;
}

QString whyTitle()
{
    return u"Why?"_s;
}

Switch privateName(const LocalStatus& status)
{
    Switch name;
    name.title = u"Use a private name for %1"_s.arg(machine::thisMachine());
    const std::optional<LocalStatus::Name>& held = status.name;
    name.on = held && held->setting.value_or(false);
    name.help = u"So your phone’s browser trusts the download page. Tidewatch gets a free certificate from Let’s "
                "Encrypt for the name and accepts their terms on your behalf. The name is public; %1 Wi\u2011Fi "
                "address is in DNS only while a code is shown."_s.arg(machine::thisMachines());
    if (held && held->inUse.value_or(false) && held->host && !held->host->isEmpty())
        name.note = *held->host;
    else if (held && held->reason && !held->reason->trimmed().isEmpty())
        name.note = held->reason->trimmed();
    return name;
}

QString uninstall()
{
    return u"Uninstall Tidewatch…"_s;
}

} // namespace SettingsWords
