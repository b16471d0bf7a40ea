<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="es" sourcelanguage="en">
<context>
    <name>ZELUpdater</name>
    <message>
        <source>Updater.Checking for Updates</source>
        <extracomment>Title</extracomment>
        <translation>Buscando actualizaciones</translation>
    </message>
    <message>
        <source>Updater.Cancel</source>
        <extracomment>Button, also in a row of three</extracomment>
        <translation>Cancelar</translation>
    </message>
    <message>
        <source>Updater.Downloading</source>
        <extracomment>Title</extracomment>
        <translation>Descargando</translation>
    </message>
    <message>
        <source>Updater.Connecting</source>
        <extracomment>Message</extracomment>
        <translation>Conectando</translation>
    </message>
    <message>
        <source>Updater.%@ completed</source>
        <extracomment>Message; %@ is a percentage such as 42%</extracomment>
        <translation>%@ completado</translation>
    </message>
    <message>
        <source>Updater.Preparing update</source>
        <extracomment>Message</extracomment>
        <translation>Preparando la actualización</translation>
    </message>
    <message>
        <source>Updater.Error</source>
        <extracomment>Title</extracomment>
        <translation>Error</translation>
    </message>
    <message>
        <source>Updater.An error occurred while updating.</source>
        <extracomment>Message</extracomment>
        <translation>Se ha producido un error durante la actualización.</translation>
    </message>
    <message>
        <source>Updater.Retry</source>
        <extracomment>Button, in a row of two</extracomment>
        <translation>Reintentar</translation>
    </message>
    <message>
        <source>Updater.Up To Date</source>
        <extracomment>Title</extracomment>
        <translation>Actualizado</translation>
    </message>
    <message>
        <source>Updater.No updates are available.</source>
        <extracomment>Message</extracomment>
        <translation>No hay actualizaciones disponibles.</translation>
    </message>
    <message>
        <source>Updater.Done</source>
        <extracomment>Button</extracomment>
        <translation>Listo</translation>
    </message>
    <message>
        <source>Updater.Completed</source>
        <extracomment>Title</extracomment>
        <translation>Completado</translation>
    </message>
    <message>
        <source>Updater.Updates were successfully installed.</source>
        <extracomment>Message</extracomment>
        <translation>Las actualizaciones se han instalado correctamente.</translation>
    </message>
    <message>
        <source>Updater.Install</source>
        <extracomment>Button in a row of three</extracomment>
        <translation>Instalar</translation>
    </message>
    <message>
        <source>Updater.Skip</source>
        <extracomment>Button in a row of three</extracomment>
        <translation>Omitir</translation>
    </message>
    <message>
        <source>Updater.Version %1 is available, you have %2.</source>
        <extracomment>Read out by screen readers; %1 and %2 are versions such as 1.1</extracomment>
        <translation>La versión %1 está disponible; la instalada es la %2.</translation>
    </message>
</context>
</TS>
