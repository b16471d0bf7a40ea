<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="it" sourcelanguage="en">
<context>
    <name>ZELUpdater</name>
    <message>
        <source>Updater.Checking for Updates</source>
        <extracomment>Title</extracomment>
        <translation>Ricerca aggiornamenti</translation>
    </message>
    <message>
        <source>Updater.Cancel</source>
        <extracomment>Button, also in a row of three</extracomment>
        <translation>Annulla</translation>
    </message>
    <message>
        <source>Updater.Downloading</source>
        <extracomment>Title</extracomment>
        <translation>Download in corso</translation>
    </message>
    <message>
        <source>Updater.Connecting</source>
        <extracomment>Message</extracomment>
        <translation>Connessione</translation>
    </message>
    <message>
        <source>Updater.%@ completed</source>
        <extracomment>Message; %@ is a percentage such as 42%</extracomment>
        <translation>%@ completato</translation>
    </message>
    <message>
        <source>Updater.Preparing update</source>
        <extracomment>Message</extracomment>
        <translation>Preparazione dell’aggiornamento</translation>
    </message>
    <message>
        <source>Updater.Error</source>
        <extracomment>Title</extracomment>
        <translation>Errore</translation>
    </message>
    <message>
        <source>Updater.An error occurred while updating.</source>
        <extracomment>Message</extracomment>
        <translation>Si è verificato un errore durante l’aggiornamento.</translation>
    </message>
    <message>
        <source>Updater.Retry</source>
        <extracomment>Button, in a row of two</extracomment>
        <translation>Riprova</translation>
    </message>
    <message>
        <source>Updater.Up To Date</source>
        <extracomment>Title</extracomment>
        <translation>Aggiornato</translation>
    </message>
    <message>
        <source>Updater.No updates are available.</source>
        <extracomment>Message</extracomment>
        <translation>Nessun aggiornamento disponibile.</translation>
    </message>
    <message>
        <source>Updater.Done</source>
        <extracomment>Button</extracomment>
        <translation>Fine</translation>
    </message>
    <message>
        <source>Updater.Completed</source>
        <extracomment>Title</extracomment>
        <translation>Completato</translation>
    </message>
    <message>
        <source>Updater.Updates were successfully installed.</source>
        <extracomment>Message</extracomment>
        <translation>Gli aggiornamenti sono stati installati correttamente.</translation>
    </message>
    <message>
        <source>Updater.Install</source>
        <extracomment>Button in a row of three</extracomment>
        <translation>Installa</translation>
    </message>
    <message>
        <source>Updater.Skip</source>
        <extracomment>Button in a row of three</extracomment>
        <translation>Salta</translation>
    </message>
    <message>
        <source>Updater.Version %1 is available, you have %2.</source>
        <extracomment>Read out by screen readers; %1 and %2 are versions such as 1.1</extracomment>
        <translation>È disponibile la versione %1; quella installata è la %2.</translation>
    </message>
</context>
</TS>
