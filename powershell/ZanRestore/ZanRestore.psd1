@{
    RootModule        = 'ZanRestore.psm1'
    ModuleVersion     = '1.5.0'
    GUID              = '7f0c2f4e-93c5-4c1b-8f43-2b1d6f0f5d0e'
    Author            = 'zan_restore maintainers'
    Description       = 'Sets up and controls restorations by the restore filter, with zan_restore.'
    PowerShellVersion = '5.1'
    CompatiblePSEditions = 'Desktop', 'Core'
    FunctionsToExport = 'New-ZanRestore', 'Start-ZanRestore', 'Stop-ZanRestore', 'Test-ZanRestore',
                        'Get-ZanRestoreProgress', 'Wait-ZanRestore'
    CmdletsToExport   = @()
    VariablesToExport = @()
    AliasesToExport   = @()
}
