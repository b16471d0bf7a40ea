<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr" sourcelanguage="en">
<context>
    <name>ZELUpdater</name>
    <message>
        <source>Updater.Checking for Updates</source>
        <extracomment>Title</extracomment>
        <translation>Recherche de mises à jour</translation>
    </message>
    <message>
        <source>Updater.Cancel</source>
        <extracomment>Button, also in a row of three</extracomment>
        <translation>Annuler</translation>
    </message>
    <message>
        <source>Updater.Downloading</source>
        <extracomment>Title</extracomment>
        <translation>Téléchargement</translation>
    </message>
    <message>
        <source>Updater.Connecting</source>
        <extracomment>Message</extracomment>
        <translation>Connexion</translation>
    </message>
    <message>
        <source>Updater.%@ completed</source>
        <extracomment>Message; %@ is a percentage such as 42%</extracomment>
        <translation>%@ terminé</translation>
    </message>
    <message>
        <source>Updater.Preparing update</source>
        <extracomment>Message</extracomment>
        <translation>Préparation de la mise à jour</translation>
    </message>
    <message>
        <source>Updater.Error</source>
        <extracomment>Title</extracomment>
        <translation>Erreur</translation>
    </message>
    <message>
        <source>Updater.An error occurred while updating.</source>
        <extracomment>Message</extracomment>
        <translation>Une erreur s’est produite lors de la mise à jour.</translation>
    </message>
    <message>
        <source>Updater.Retry</source>
        <extracomment>Button, in a row of two</extracomment>
        <translation>Réessayer</translation>
    </message>
    <message>
        <source>Updater.Up To Date</source>
        <extracomment>Title</extracomment>
        <translation>À jour</translation>
    </message>
    <message>
        <source>Updater.No updates are available.</source>
        <extracomment>Message</extracomment>
        <translation>Aucune mise à jour n’est disponible.</translation>
    </message>
    <message>
        <source>Updater.Done</source>
        <extracomment>Button</extracomment>
        <translation>Terminé</translation>
    </message>
    <message>
        <source>Updater.Completed</source>
        <extracomment>Title</extracomment>
        <translation>Mise à jour terminée</translation>
    </message>
    <message>
        <source>Updater.Updates were successfully installed.</source>
        <extracomment>Message</extracomment>
        <translation>Les mises à jour ont bien été installées.</translation>
    </message>
    <message>
        <source>Updater.Install</source>
        <extracomment>Button in a row of three</extracomment>
        <translation>Installer</translation>
    </message>
    <message>
        <source>Updater.Skip</source>
        <extracomment>Button in a row of three</extracomment>
        <translation>Ignorer</translation>
    </message>
    <message>
        <source>Updater.Version %1 is available, you have %2.</source>
        <extracomment>Read out by screen readers; %1 and %2 are versions such as 1.1</extracomment>
        <translation>La version %1 est disponible, vous avez la version %2.</translation>
    </message>
</context>
</TS>
