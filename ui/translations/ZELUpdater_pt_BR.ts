<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="pt_BR" sourcelanguage="en">
<context>
    <name>ZELUpdater</name>
    <message>
        <source>Updater.Checking for Updates</source>
        <extracomment>Title</extracomment>
        <translation>Verificando atualizações</translation>
    </message>
    <message>
        <source>Updater.Cancel</source>
        <extracomment>Button, also in a row of three</extracomment>
        <translation>Cancelar</translation>
    </message>
    <message>
        <source>Updater.Downloading</source>
        <extracomment>Title</extracomment>
        <translation>Baixando</translation>
    </message>
    <message>
        <source>Updater.Connecting</source>
        <extracomment>Message</extracomment>
        <translation>Conectando</translation>
    </message>
    <message>
        <source>Updater.%@ completed</source>
        <extracomment>Message; %@ is a percentage such as 42%</extracomment>
        <translation>%@ concluído</translation>
    </message>
    <message>
        <source>Updater.Preparing update</source>
        <extracomment>Message</extracomment>
        <translation>Preparando a atualização</translation>
    </message>
    <message>
        <source>Updater.Error</source>
        <extracomment>Title</extracomment>
        <translation>Erro</translation>
    </message>
    <message>
        <source>Updater.An error occurred while updating.</source>
        <extracomment>Message</extracomment>
        <translation>Ocorreu um erro durante a atualização.</translation>
    </message>
    <message>
        <source>Updater.Retry</source>
        <extracomment>Button, in a row of two</extracomment>
        <translation>Repetir</translation>
    </message>
    <message>
        <source>Updater.Up To Date</source>
        <extracomment>Title</extracomment>
        <translation>Atualizado</translation>
    </message>
    <message>
        <source>Updater.No updates are available.</source>
        <extracomment>Message</extracomment>
        <translation>Não há atualizações disponíveis.</translation>
    </message>
    <message>
        <source>Updater.Done</source>
        <extracomment>Button</extracomment>
        <translation>Concluir</translation>
    </message>
    <message>
        <source>Updater.Completed</source>
        <extracomment>Title</extracomment>
        <translation>Concluído</translation>
    </message>
    <message>
        <source>Updater.Updates were successfully installed.</source>
        <extracomment>Message</extracomment>
        <translation>As atualizações foram instaladas com sucesso.</translation>
    </message>
    <message>
        <source>Updater.Install</source>
        <extracomment>Button in a row of three</extracomment>
        <translation>Instalar</translation>
    </message>
    <message>
        <source>Updater.Skip</source>
        <extracomment>Button in a row of three</extracomment>
        <translation>Pular</translation>
    </message>
    <message>
        <source>Updater.Version %1 is available, you have %2.</source>
        <extracomment>Read out by screen readers; %1 and %2 are versions such as 1.1</extracomment>
        <translation>A versão %1 está disponível; a instalada é a %2.</translation>
    </message>
</context>
</TS>
