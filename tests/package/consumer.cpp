// Uses what the installed library exports; links only if all of it is.
#include <ZELUpdater/bsdiff2.h>
#include <ZELUpdater/bspatch2.h>
#include <ZELUpdater/MD5FromData.h>
#include <ZELUpdater/readfile.h>
#include <ZELUpdater/sais.h>
#include <ZELUpdater/ZELLayout.h>
#include <ZELUpdater/ZELLocalization.h>
#include <ZELUpdater/ZELUpdater.h>
#include <ZELUpdater/ZELUpdaterApplyPatch.h>
#include <ZELUpdater/ZELUpdaterButton.h>
#include <ZELUpdater/ZELUpdaterCheckingPage.h>
#include <ZELUpdater/ZELUpdaterDownloadPage.h>
#include <ZELUpdater/ZELUpdaterErrorPage.h>
#include <ZELUpdater/ZELUpdaterEscapeString.h>
#include <ZELUpdater/ZELUpdaterFooter.h>
#include <ZELUpdater/ZELUpdaterHistoryPage.h>
#include <ZELUpdater/ZELUpdaterNoUpdatesPage.h>
#include <ZELUpdater/ZELUpdaterProgressView.h>
#include <ZELUpdater/ZELUpdaterTestPatch.h>
#include <ZELUpdater/ZELUpdaterUpdatedPage.h>
#include <ZELUpdater/ZELUpdaterValidateCodeSigning.h>
#include <ZELUpdater/ZELUpdaterView.h>
#include <ZELUpdater/ZELUpdaterWindow.h>

#include <QApplication>

#include <cstdio>

namespace {

template <typename... Things> bool areThere(Things... things)
{
    return (... && (reinterpret_cast<const void *>(things) != nullptr));
}

} // namespace

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    ZELUpdater *updater = ZELUpdater::shared();
    updater->showErrorPage();
    ZELUpdaterView view;
    ZELUpdaterFooter footer;
    ZELUpdaterProgressView progress;
    ZELLayoutView(new ZELUpdaterButton(&view),
                  ZELMakeLayoutFrame(0, 0, 0, 0, ZELLayoutNotSet, ZELLayoutNotSet));

    void (*const checkInBackground)(const QVariantMap &, ZELCheckCompletion) = &ZELUpdater::checkForUpdates;
    const bool functions = areThere(
        &bspatch2, &bsdiff2, &bsdiff, &readfile, &sais, &sais_int, &sais_bwt, &sais_int_bwt,
        &ZELUpdaterApplyPatch, &ZELUpdaterTestPatch, &ZELUpdaterEscapeString, &ZELUpdaterValidateCodeSigning,
        &ZELMakeLayoutFrame, &ZELLayoutView, &ZELLayoutViewBelowView, &ZELLayoutViewsHorizontal,
        &ZELLayoutViewsHorizontal2, &ZELLocalizedStringFromTableInBundle, checkInBackground);
    const bool texts =
        ZELUpdater::descriptionForStatus(ZELStatusUpdateAvailable) == QLatin1String("Update Available")
        && MD5FromData("abc") == QLatin1String("900150983cd24fb0d6963f7d28e17f72");
    // A host without a window watches and cancels a download by its task.
    const bool isIdle = updater->task() == nullptr;
    if (const std::shared_ptr<ZELURLSessionTask> task = updater->task();
        task && task->countOfBytesReceived() < task->countOfBytesExpectedToReceive())
        task->cancel();
    const bool properties = isIdle
        && updater->property("task").canConvert<std::shared_ptr<ZELURLSessionTask>>()
        && updater->property("currentPage").value<QWidget *>() == updater->currentPage();
    std::puts(functions && texts && properties ? "the package works" : "the package does not work");
    return functions && texts && properties ? 0 : 1;
}
